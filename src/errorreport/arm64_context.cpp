#include "errorreport/arm64_context.h"

#include "errorreport/little_endian.h"

namespace corvo::errorreport {
namespace {

// Every flag of a processor's context holds the processor's own bit, here 0x400000, too.
enum : std::uint32_t { control = 0x400001, integer = 0x400002, floating_point = 0x400004, debug = 0x400008 };

// One shared bit suffices, not all bits of the block: since every ARM64 context has the processor's bit, all four blocks are
// written whatever else is set. The readers rely on that.
bool wanted(std::uint32_t flags, std::uint32_t block) noexcept {
    return (flags & block) != 0;
}

template <class T, std::size_t N> void put_all(stream::basic& out, const T (&values)[N]) {
    for (const T value : values) {
        put(out, value);
    }
}

} // namespace

void write_context(stream::basic& out, const arm64_context& context) {
    put(out, context.context_flags);
    if (wanted(context.context_flags, integer)) {
        put_all(out, context.x);
        put(out, context.fp);
        put(out, context.lr);
    }
    if (wanted(context.context_flags, control)) {
        put(out, context.fp); // again, like the link register: each block can be read without the other
        put(out, context.lr);
        put(out, context.sp);
        put(out, context.pc);
        put(out, context.cpsr);
    }
    if (wanted(context.context_flags, floating_point)) {
        for (const auto& lanes : context.v) {
            put_all(out, lanes);
        }
        put(out, context.fpcr);
        put(out, context.fpsr);
    }
    if (wanted(context.context_flags, debug)) {
        put_all(out, context.bcr);
        put_all(out, context.bvr);
        put_all(out, context.wcr);
        put_all(out, context.wvr);
    }
}

} // namespace corvo::errorreport
