#include "minisign/verifier.h"

#include "platform/user_cancelled.h"

#include <sodium.h>

#include <array>
#include <stdexcept>

namespace corvo::minisign {
namespace {

// libsodium chooses its fast BLAKE2b for this processor here; without the call it remains with the portable one.
void prepare_libsodium() {
    static const int result = sodium_init();
    if (result < 0) {
        throw std::runtime_error("sodium_init failed");
    }
}

} // namespace

const trusted_key& find_trusted_key(const signature& made, const trusted_key* keys, std::size_t count) {
    // Every record is compared before the outcome is looked at: how long it takes to refuse a key says nothing about the table. Which
    // record it is that matches is not a secret; it is looked for from the start.
    std::uint64_t mismatch = 1;
    for (std::size_t i = 0; i < count; ++i) {
        mismatch &= static_cast<std::uint64_t>((made.id ^ keys[i].id) != 0);
    }
    if (mismatch != 0) {
        throw std::runtime_error("Untrusted Minisign key");
    }
    const trusted_key* key = keys;
    while (key->id != made.id) {
        ++key;
    }
    if (made.algorithm != 'D') {
        throw std::runtime_error("Unsupported Minisign signature");
    }
    return *key;
}

content_hash::content_hash()
    : m_state((prepare_libsodium(), std::make_unique<crypto_generichash_blake2b_state>())) {
    crypto_generichash_blake2b_init(m_state.get(), nullptr, 0, 64);
}

content_hash::~content_hash() = default;

void content_hash::update(const void* data, std::size_t length) noexcept {
    crypto_generichash_blake2b_update(m_state.get(), static_cast<const unsigned char*>(data), length);
}

bool content_hash::verify(const signature& made, const trusted_key& key) noexcept {
    std::array<unsigned char, 64> hash;
    crypto_generichash_blake2b_final(m_state.get(), hash.data(), hash.size());
    return crypto_sign_ed25519_verify_detached(made.bytes.data(), hash.data(), hash.size(), key.key.data()) ==
           0;
}

bool content_verifies(stream::basic_file& content, const signature& made, const trusted_key& key,
                      progress<std::uint64_t>* progress) {
    content_hash hash;
    const stream::fsize size = content.size();
    if (content.seek(0, stream::seek_beg) == stream::fpos_max) {
        return false;
    }
    std::array<char, 8192> block;
    stream::fsize done = 0;
    for (;;) {
        const std::size_t length = content.read(block.data(), block.size());
        if (!content.ok()) {
            break;
        }
        hash.update(block.data(), length);
        done += length;
        if (progress != nullptr) {
            if (size != 0) {
                progress->set(100 + (1000 - 100) * done / size);
            }
            if (progress->cancel()) {
                throw user_cancelled("operation cancelled");
            }
        }
    }
    return content.state() == stream::state_t::eof && hash.verify(made, key);
}

std::size_t hashing_writer::write(const void* data, std::size_t length) {
    m_hash.update(data, length);
    const std::size_t written = m_target.write(data, length);
    m_state = m_target.state();
    return written;
}

} // namespace corvo::minisign
