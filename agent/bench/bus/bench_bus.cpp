/*
 * Publications a second on the agent's bus with its tap, against a plain copy of the same bytes
 * into a new block. The tap's file is in the directory for temporary files (TMPDIR). Debug lines
 * aren't logged, as by default. For each size the two run in turn several times, and the best of
 * each counts.
 */
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "datapath/mbframe.h"
#include "tests/support/temp_tree.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr unsigned int origin_id = 18;
constexpr size_t bytes_a_round = size_t{64} << 20;
constexpr size_t most_a_round = 100000;
constexpr int rounds = 5;

// One publication, with a copy of the data as its content.
class publication : public MbFrame::IEvent {
  public:
    explicit publication(const std::string &data) {
        info.event_id = origin_id;
        info.data = new char[data.size() + 1];
        memcpy(info.data, data.c_str(), data.size() + 1);
    }
    ~publication() override { delete[] info.data; }
    publication(const publication &) = delete;
    publication &operator=(const publication &) = delete;

    unsigned int QueryInterface(const _GUID &, void **) override { return 1; }
    unsigned int GetUniqueID() const override { return info.event_id; }
    bool AsyncDroppable() const override { return false; }
    void *GetNativeEvent() override { return &info; }

  private:
    _RESPONSE_APP_REQUEST_INFO info = {};
};

class publisher : public MbFrame::IPlugin {
  public:
    unsigned int QueryInterface(const _GUID &, void **) override { return 1; }
    unsigned int GetUniqueID(unsigned char (*out)[16]) const override {
        memset(*out, 'b', sizeof(*out));
        return 0;
    }
    unsigned int GetVersion(unsigned int *out) const override {
        *out = 1;
        return 0;
    }
    int OnAdvised(MbFrame::IPluginSetting *, MbFrame::IDispatch *to) override {
        dispatch = to;
        return 0;
    }
    int OnUnadvised(_UNADVISE_REASON) override {
        dispatch = nullptr;
        return 0;
    }
    int OnEvent(MbFrame::IEvent *, _RESPONSE_STATUS *) override { return 0; }

    MbFrame::IDispatch *dispatch = nullptr;
};

publisher s_publisher;

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
    auto *const event = new publication(data);
    event->AddRef();
    s_publisher.dispatch->Dispatch(event);
    event->Release();
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
    if (reference_bus()->Advise(&s_publisher, 1) != 0) {
        fprintf(stderr, "the bus refuses its plug-in\n");
        return 2;
    }
    printf("Publications a second, in thousands\n");
    printf("%10s %12s %14s %22s\n", "bytes", "plain copy", "bus and tap", "added by a publication");
    for (const size_t size : {64U, 1024U, 16384U, 262144U}) {
        const std::string data(size, 'x');
        double copies = 0;
        double on_bus = 0;
        for (int round = 0; round < rounds; ++round) {
            copies = std::max(copies, per_second(data, plain_copy));
            on_bus = std::max(on_bus, per_second(data, publish));
        }
        printf("%10zu %12.0f %14.0f %19.2f us\n", size, copies / 1e3, on_bus / 1e3,
               1e6 / on_bus - 1e6 / copies);
    }
    return 0;
}
