#include "errorreport/processor.h"

#include "errorreport/arm64_context.h"
#include "errorreport/little_endian.h"

#include <cstring>

namespace corvo::errorreport {

#ifdef __aarch64__

static_assert(sizeof(CONTEXT) == sizeof(arm64_context));
static_assert(offsetof(CONTEXT, ContextFlags) == offsetof(arm64_context, context_flags));
static_assert(offsetof(CONTEXT, Cpsr) == offsetof(arm64_context, cpsr));
static_assert(offsetof(CONTEXT, X0) == offsetof(arm64_context, x));
static_assert(offsetof(CONTEXT, Fp) == offsetof(arm64_context, fp));
static_assert(offsetof(CONTEXT, Lr) == offsetof(arm64_context, lr));
static_assert(offsetof(CONTEXT, Sp) == offsetof(arm64_context, sp));
static_assert(offsetof(CONTEXT, Pc) == offsetof(arm64_context, pc));
static_assert(offsetof(CONTEXT, V) == offsetof(arm64_context, v));
static_assert(offsetof(CONTEXT, Fpcr) == offsetof(arm64_context, fpcr));
static_assert(offsetof(CONTEXT, Fpsr) == offsetof(arm64_context, fpsr));
static_assert(offsetof(CONTEXT, Bcr) == offsetof(arm64_context, bcr));
static_assert(offsetof(CONTEXT, Bvr) == offsetof(arm64_context, bvr));
static_assert(offsetof(CONTEXT, Wcr) == offsetof(arm64_context, wcr));
static_assert(offsetof(CONTEXT, Wvr) == offsetof(arm64_context, wvr));

frame_registers frame_of(const CONTEXT& context) noexcept {
    // The link register takes the place of the backing store, which the processor does not have. Intended: walks have always
    // begun like this, and reports of different versions are compared frame by frame.
    return {context.Pc, context.Fp, context.Sp, context.Lr};
}

void write_processor_context(stream::basic& out, const CONTEXT& context) {
    arm64_context ours;
    std::memcpy(&ours, &context, sizeof ours);
    write_context(out, ours);
}

#else

frame_registers frame_of(const CONTEXT& context) noexcept {
    return {context.Rip, context.Rbp, context.Rsp, 0};
}

void write_processor_context(stream::basic& out, const CONTEXT&) {
    put(out, std::uint32_t{0});
}

#endif

} // namespace corvo::errorreport
