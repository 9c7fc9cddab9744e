// A stream in front of another one, the target, to which it passes everything on; derived classes change what
// goes through.
//
// The target is not owned and must outlive the converter. The state is the target's when the converter is made,
// and again after every operation that was passed on. Skipping reads, as in every plain stream. One thread at
// a time; throws what the target throws.
#pragma once

#include "stream/basic.h"

namespace corvo::stream {

class converter : virtual public basic {
public:
    explicit converter(basic& target) noexcept;

    std::size_t read(void* data, std::size_t length) override;
    std::size_t write(const void* data, std::size_t length) override;
    void flush() override;
    void close() override;

protected:
    basic& m_source;
};

} // namespace corvo::stream
