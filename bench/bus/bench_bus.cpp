/*
 * Publications a second against a plain copy of the same bytes into a new block.
 *
 * "empty bus" is the plug-in's own share: lock, event, copy and release, with a bus that only says
 * yes. "reference bus" is that with the reference agent's bus and its tap, whose file is in the
 * directory for temporary files (TMPDIR). Debug lines aren't logged, as by default. For each size
 * the three run in turn several times, and the best of each counts.
 */
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "datapath/kzemm_invoke.h"
#include "tests/support/temp_tree.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr unsigned int kind = KZEMM_PUBLISH_ORIGIN;
constexpr size_t bytes_a_round = size_t{64} << 20;
constexpr size_t most_a_round = 100000;
constexpr int rounds = 5;

class empty_dispatch : public MbFrame::IDispatch {
  public:
    int Dispatch(MbFrame::IEvent *) override { return 0; }
};

MbFrame::IRtmFrame *reference_bus() {
    void *const library = dlopen(BUS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    const auto get =
        library == nullptr
            ? nullptr
            : reinterpret_cast<DllGetClassObject_fn>(dlsym(library, "DllGetClassObject"));
    const _GUID null_class = {};
    void *object = nullptr;
    if (get == nullptr || get(&null_class, MbFrame::IRtmFrame::IRtmFrame_ID, &object) != 0) {
        fprintf(stderr, "the reference bus can't be opened\n");
        exit(2);
    }
    return static_cast<MbFrame::IRtmFrame *>(object);
}

// Keeps the compiler from leaving the copy out.
void use(const char *block) {
    asm volatile("" : : "r"(block) : "memory");
}

void plain_copy(const std::string &data) {
    auto *const block = new char[data.size()];
    memcpy(block, data.data(), data.size());
    use(block);
    delete[] block;
}

void publish(const std::string &data) {
    kzemm_invoke::Publish(kind, data.data(), static_cast<unsigned int>(data.size()),
                          &kzemm_invoke::GetInstance());
}

double per_second(const std::string &data, void (*once)(const std::string &)) {
    const size_t times = std::min(most_a_round, std::max(size_t{200}, bytes_a_round / data.size()));
    const auto begin = clock_type::now();
    for (size_t i = 0; i < times; ++i) {
        once(data);
    }
    return static_cast<double>(times) /
           std::chrono::duration<double>(clock_type::now() - begin).count();
}

}  // namespace

int main() {
    const kze_test::temp_tree tree;
    kzemm_invoke &plugin = kzemm_invoke::GetInstance();
    MbFrame::IRtmFrame *const bus = reference_bus();
    empty_dispatch empty;
    printf("Publications a second, in thousands\n");
    printf("%10s %12s %12s %14s %22s\n", "bytes", "plain copy", "empty bus", "reference bus",
           "added by a publication");
    for (const size_t size : {64U, 1024U, 16384U, 262144U}) {
        const std::string data(size, 'x');
        double copies = 0;
        double on_empty = 0;
        double on_reference = 0;
        for (int round = 0; round < rounds; ++round) {
            copies = std::max(copies, per_second(data, plain_copy));
            plugin.OnAdvised(nullptr, &empty);
            on_empty = std::max(on_empty, per_second(data, publish));
            if (bus->Advise(&plugin, 1) != 0) {
                fprintf(stderr, "the reference bus refuses the plug-in\n");
                return 2;
            }
            on_reference = std::max(on_reference, per_second(data, publish));
        }
        printf("%10zu %12.0f %12.0f %14.0f %12.2f / %.2f us\n", size, copies / 1e3, on_empty / 1e3,
               on_reference / 1e3, 1e6 / on_empty - 1e6 / copies,
               1e6 / on_reference - 1e6 / copies);
    }
    return 0;
}
