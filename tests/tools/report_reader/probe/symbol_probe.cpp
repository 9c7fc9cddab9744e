// Functions of every kind that a crash can lie in. Each marked place writes its own address, its line and its name into the section
// ".probes" of the program, so that a test knows what a reader of the PDB must find there.

#include <windows.h>

namespace {

volatile int sink = 0;

} // namespace

// The address is that of the instruction behind the mark, which writes `value` in the marked line.
#define PROBE(name)                                                                                          \
    asm volatile(".Lprobe%=: nop\n"                                                                          \
                 ".pushsection .probes,\"dr\"\n"                                                             \
                 ".rva .Lprobe%=\n"                                                                          \
                 ".long %c0\n"                                                                               \
                 ".asciz \"" name "\"\n"                                                                     \
                 ".balign 4\n"                                                                               \
                 ".popsection"                                                                               \
                 :                                                                                           \
                 : "i"(__LINE__)                                                                             \
                 : "memory")

namespace probe {

[[gnu::noinline]] void plain() {
    PROBE("plain");
    sink = sink + 1;
}

[[gnu::always_inline]] inline void leaf() {
    sink = sink + 2;
    PROBE("inlined");
}

[[gnu::always_inline]] inline void branch() {
    leaf();
    sink = sink + 3;
}

[[gnu::noinline]] void trunk() {
    branch();
    sink = sink + 4;
}

template <typename Number, int Step> struct counter {
    [[gnu::noinline]] void add(Number by) {
        PROBE("templated");
        sink = sink + static_cast<int>(by) + Step;
    }
};

template <typename Function> [[gnu::noinline]] void call(const Function& function) {
    function();
    sink = sink + 5;
}

[[gnu::noinline]] void with_lambda(int by) {
    call([by]() __attribute__((noinline)) {
        PROBE("lambda");
        sink = sink + by;
    });
}

struct first {
    virtual void one() { sink = sink + 6; }
    virtual ~first() = default;
};

struct second {
    virtual void two() = 0;
    virtual ~second() = default;
};

// Through a `second` two() is called by way of a thunk that corrects `this`.
struct both final : first, second {
    [[gnu::noinline]] void two() override {
        PROBE("behind the thunk");
        sink = sink + 7;
    }
};

[[gnu::noinline]] void through(second& object) {
    object.two();
    PROBE("return");
    sink = sink + 8;
}

} // namespace probe

// Of the thunk the linker knows the place, and the source has no line.
asm(".section .probes,\"dr\"\n"
    ".rva _ZThn8_N5probe4both3twoEv\n"
    ".long 0\n"
    ".asciz \"thunk\"\n"
    ".balign 4\n"
    ".text\n");

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    probe::plain();
    probe::trunk();
    probe::counter<long long, 3>().add(sink);
    probe::with_lambda(sink);
    probe::both object;
    probe::through(object);
    return sink;
}
