// Deciding whether content carries the signature of a trusted key. Portable; libsodium does the arithmetic.
#pragma once

#include "minisign/signature.h"
#include "platform/progress.h"
#include "stream/basic_file.h"

#include <cstddef>
#include <cstdint>
#include <memory>

struct crypto_generichash_blake2b_state;

namespace corvo::minisign {

// The key that `made` was signed with. Throws std::runtime_error "Untrusted Minisign key" if it is not in the table, then
// "Unsupported Minisign signature" for any kind but Ed25519 over a BLAKE2b-512 hash.
const trusted_key& find_trusted_key(const signature& made, const trusted_key* keys, std::size_t count);

// BLAKE2b-512 over content that arrives in pieces, and the check of a signature over it. One thread at a time.
class content_hash {
public:
    content_hash();
    content_hash(const content_hash&) = delete;
    content_hash& operator=(const content_hash&) = delete;
    ~content_hash();

    void update(const void* data, std::size_t length) noexcept;

    // Ends the hash and says whether `made` is the signature of `key` over what was hashed. Called once.
    bool verify(const signature& made, const trusted_key& key) noexcept;

private:
    std::unique_ptr<crypto_generichash_blake2b_state>
        m_state; // the type is aligned to 64 bytes, as libsodium requires
};

// Whether `content`, read from its start to its end, carries the signature. Reads in blocks of 8192 bytes. A
// file that cannot be read to its end does not: what follows the failure would not have been checked.
//
// With `progress`, reports 100 + 900 * bytes read / size after each block, and throws corvo::user_cancelled "operation
// cancelled" when it says so.
bool content_verifies(stream::basic_file& content, const signature& made, const trusted_key& key,
                      progress<std::uint64_t>* progress);

// Hands everything on to `target`, not owned, and feeds it to `hash`, not owned. The state is the target's.
class hashing_writer final : virtual public stream::basic {
public:
    hashing_writer(stream::basic& target, content_hash& hash) noexcept : m_target(target), m_hash(hash) {}

    std::size_t write(const void* data, std::size_t length) override;

private:
    stream::basic& m_target;
    content_hash& m_hash;
};

} // namespace corvo::minisign
