// Opening shared libraries at run time.
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <thread>

#include "kzautil.h"
#include "tests/component/vrdbase/temporary_tree.h"
#include "vrdbase.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

// What the tests open: GOOD_LIBRARY exports library_answer(); BROKEN_LIBRARY needs a symbol that
// nothing has, which only shows when all symbols are bound at once.
class Library : public TemporaryTree {
  protected:
    // Runs `work` on a thread with a log of its own, and returns the log's lines.
    template <typename Work>
    std::vector<std::string> log_of(Work work) {
        error_output_set_level(2);
        std::thread([&] {
            autolog_init(path("log").c_str(), 5);
            work();
        }).join();
        return lines_of(path("log/log.log"));
    }

    std::vector<std::string> refusal_of(const std::string &library, int expected_code) {
        return log_of([&] {
            int local = 0;
            void *handle = &local;
            EXPECT_EQ(kze_dll_open(library.c_str(), &handle), expected_code);
            EXPECT_EQ(handle, nullptr);
        });
    }
};

}  // namespace

TEST_F(Library, is_opened_its_symbol_called_and_closed_without_a_log_line) {
    const auto log = log_of([] {
        void *handle = nullptr;
        ASSERT_EQ(kze_dll_open(GOOD_LIBRARY, &handle), 0);
        ASSERT_NE(handle, nullptr);
        void *address = nullptr;
        ASSERT_EQ(kze_dll_get_addr(handle, "library_answer", &address), 0);
        EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 42);
        EXPECT_EQ(kze_dll_close(handle), 0);
        EXPECT_EQ(dlopen(GOOD_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    });
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(Library, keeps_its_symbols_to_itself) {
    void *handle = nullptr;
    ASSERT_EQ(kze_dll_open(GOOD_LIBRARY, &handle), 0);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "library_answer"), nullptr);
    EXPECT_EQ(kze_dll_close(handle), 0);
}

TEST_F(Library, that_is_missing_is_reported_with_its_path_and_the_loaders_words) {
    const std::string missing = path("no_such_library.so");
    EXPECT_THAT(refusal_of(missing, ENOENT),
                ElementsAre(AllOf(HasSubstr(" WARN "), HasSubstr(missing + ": cannot open"))));
}

TEST_F(Library, that_is_no_library_is_reported_as_failing_not_as_missing) {
    const std::string text = path("text.so");
    write_content(text, "no library");
    EXPECT_THAT(refusal_of(text, ELIBACC), ElementsAre(AllOf(HasSubstr(" WARN "), HasSubstr(text),
                                                             HasSubstr("file too short"))));
}

TEST_F(Library, that_needs_a_symbol_nothing_has_is_refused_at_once_and_named) {
    EXPECT_THAT(refusal_of(BROKEN_LIBRARY, ELIBACC),
                ElementsAre(AllOf(HasSubstr(BROKEN_LIBRARY), HasSubstr("nobody_has_this"))));
}

TEST_F(Library, without_the_wanted_symbol_is_reported_with_path_and_symbol) {
    void *handle = nullptr;
    ASSERT_EQ(kze_dll_open(GOOD_LIBRARY, &handle), 0);
    const auto log = log_of([handle] {
        int local = 0;
        void *address = &local;
        EXPECT_EQ(kze_dll_get_addr(handle, "no_such_symbol", &address), ENOENT);
        EXPECT_EQ(address, nullptr);
    });
    EXPECT_THAT(log, ElementsAre(AllOf(HasSubstr(" WARN "), HasSubstr(GOOD_LIBRARY),
                                       HasSubstr("no_such_symbol"))));
    EXPECT_EQ(kze_dll_close(handle), 0);
}

TEST_F(Library, with_a_symbol_of_no_address_is_not_blamed_with_an_older_error) {
    void *handle = nullptr;
    ASSERT_EQ(kze_dll_open(GOOD_LIBRARY, &handle), 0);
    const auto log = log_of([handle] {
        ASSERT_EQ(dlopen("/no/such/library.so", RTLD_NOW), nullptr);
        int local = 0;
        void *address = &local;
        EXPECT_EQ(kze_dll_get_addr(handle, "library_null", &address), ENOENT);
        EXPECT_EQ(address, nullptr);
    });
    EXPECT_THAT(log, ElementsAre(AllOf(HasSubstr("library_null"), HasSubstr("no reason given"))));
    EXPECT_EQ(kze_dll_close(handle), 0);
}

TEST_F(Library, that_isnt_open_any_more_cant_be_closed) {
    // One that the program itself needs stays mapped, so that its closed handle can be looked at.
    void *handle = nullptr;
    ASSERT_EQ(kze_dll_open(OWN_LIBRARY, &handle), 0);
    ASSERT_EQ(kze_dll_close(handle), 0);
    const auto log = log_of([handle] { EXPECT_EQ(kze_dll_close(handle), ELIBACC); });
    EXPECT_THAT(log, ElementsAre(HasSubstr("not open")));
}

TEST_F(Library, functions_refuse_null) {
    int local = 0;
    void *out = &local;
    EXPECT_EQ(kze_dll_open(nullptr, &out), EINVAL);
    EXPECT_EQ(out, nullptr);
    out = &local;
    EXPECT_EQ(kze_dll_open("", &out), EINVAL);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(kze_dll_open(GOOD_LIBRARY, nullptr), EINVAL);
    out = &local;
    EXPECT_EQ(kze_dll_get_addr(nullptr, "x", &out), EINVAL);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(kze_dll_get_addr(&local, nullptr, &out), EINVAL);
    EXPECT_EQ(kze_dll_get_addr(&local, "x", nullptr), EINVAL);
    EXPECT_EQ(kze_dll_close(nullptr), EINVAL);
}
