extern "C" __attribute__((visibility("default"))) int library_answer() {
    return 42;
}

// A symbol that is there and whose address is null.
asm(".globl library_null\n.set library_null, 0");
