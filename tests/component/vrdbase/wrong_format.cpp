// Must not compile: the arguments don't fit the formats.
#include "vrdbase.h"

void wrong_formats() {
    kze_log(1, "%s", 1);
    error_output(1, "f.cpp", 1, "%s", 2);
    kze_log_output(1, "%s", 3);
}
