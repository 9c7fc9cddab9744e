// An output stream that compresses what is written to it and hands the compressed bytes to a target stream, in
// writes of at most 4096 bytes. The format is that of RFC 1950 (zlib), at the best compression.
//
// The target is not owned and must outlive the writer. The compressed data is complete only when the writer has
// been destroyed, and what goes wrong then is thrown by the destructor: std::system_error "failed to flush
// compressed stream" if the target fails. Failures of zlib are thrown as zlib_error.h says. One thread at a time.
#pragma once

#include "stream/converter.h"

#include <zlib.h>

#include <memory>

namespace corvo {

class zlib_writer : public stream::converter {
public:
    // The state is the target's. Throws if the compressor cannot be set up.
    explicit zlib_writer(stream::basic& target);

    // Finishes the compressed data, also while an exception is on its way out: the target then gets an end, although something before
    // it may be missing. The compressor and the buffer are freed whether or not that throws. Throws only if no exception is on its way
    // out that was not when the writer was made: a writer whose write has thrown could otherwise never be left alive.
    ~zlib_writer() noexcept(false) override;

    // Returns `length`. If the target fails, takes over its state and returns the bytes that the compressor has
    // taken; those that could not be handed on are lost, and the state remains when later writes succeed, so that
    // nobody takes the stream for whole. Throws on a failure of zlib.
    //
    // flush, read and close are the target's: what the compressor still holds remains there.
    std::size_t write(const void* data, std::size_t length) override;

private:
    void finish();

    // Runs the compressor over its input until it asks for more or has ended. False if the target failed.
    bool deflate_all(int flush);

    int m_exceptions; // on their way out when the writer was made
    z_stream m_zstr{};
    std::size_t m_outbuf_size;
    std::unique_ptr<unsigned char[]> m_outbuf;
};

} // namespace corvo
