extern "C" __attribute__((visibility("default"))) int library_answer() {
    return 42;
}
