extern "C" int nobody_has_this();

extern "C" __attribute__((visibility("default"))) int library_answer() {
    return nobody_has_this();
}
