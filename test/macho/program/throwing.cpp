// Throws through a function of each kind of unwinding entry; says for each whether its object was
// destroyed and the catching function's variables are what they were. Compiled for macOS.
#include <alloca.h>
#include <stdio.h>

namespace {

volatile long zero = 0;
int destroyed = 0;

struct Counted {
    ~Counted() { ++destroyed; }
};

[[gnu::noinline]] void use(void* memory) {
    asm volatile("" : : "r"(memory) : "memory");
}

[[gnu::noinline]] long thrower(long value) {
    throw value;
}

/// Keeps six variables over a call, in every register that a callee saves.
template <typename Call>
[[gnu::noinline]] long keeping(Call call) {
    const long a = zero + 1, b = zero + 2, c = zero + 3, d = zero + 4, e = zero + 5, f = zero + 6;
    const Counted counted;
    use(&destroyed);
    const long got = call();
    return got + a * b * c * d * e * f;
}

/// A small frame.
long small() {
    return keeping([] { return thrower(zero) + 1; });
}

/// A frame whose size no entry has room for.
[[gnu::noinline]] long large() {
    char memory[9000];
    const Counted counted;
    use(memory);
    return keeping([] { return thrower(zero) + 1; }) + memory[zero];
}

/// A frame of no fixed size, so that a register points to it.
[[gnu::noinline]] long variable() {
    const Counted counted;
    use(alloca(static_cast<unsigned long>(zero + 40)));
    return keeping([] { return thrower(zero) + 1; }) + 1;
}

/// A frame with a directive that only DWARF can express. Without an object: in DWARF for x86-64
/// Zig's linker leaves the handler's address unresolved.
[[gnu::noinline]] long described() {
    asm volatile(".cfi_escape 0x2e, 0x00");
    return keeping([] { return thrower(zero) + 1; }) + 1;
}

void say(const char* text) {
    for (; *text != '\0'; ++text) {
        fputc(*text, stdout);
    }
}

template <typename Call>
[[gnu::noinline]] void check(const char* name, Call call, int objects) {
    const long a = zero + 1, b = zero + 20, c = zero + 300, d = zero + 4000, e = zero + 50000;
    destroyed = 0;
    try {
        call();
        say("nothing thrown\n");
    } catch (long value) {
        const bool right = a + b + c + d + e + value == 54321 && destroyed == objects;
        say(name);
        say(right ? ": as it should be\n" : ": wrong\n");
    }
}

}  // namespace

int main() {
    check("small", small, 1);
    check("large", large, 2);
    check("variable", variable, 2);
    check("described", described, 1);
}
