// The number of this host.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/vrdbase/host_identity.h"
#include "tests/component/vrdbase/temporary_tree.h"
#include "vrdbase.h"

namespace {

const char *const one_id = "0123456789abcdef0123456789abcdef\n";
const char *const other_id = "0123456789abcdef0123456789abcdee\n";

class HostIdentity : public TemporaryTree {
  protected:
    std::string machine_file() const { return path("machine-id"); }
    std::string own_file() const { return path("var/lib/hostid"); }
    unsigned int identity() const { return host_identity(machine_file(), own_file()); }
};

}  // namespace

TEST_F(HostIdentity, comes_from_the_machines_identifier_and_is_stable) {
    write_content(machine_file(), one_id);
    const unsigned int first = identity();
    EXPECT_NE(first, 0U);
    EXPECT_EQ(identity(), first);
    EXPECT_FALSE(std::filesystem::exists(own_file()));
}

TEST_F(HostIdentity, differs_between_hosts) {
    write_content(machine_file(), one_id);
    const unsigned int first = identity();
    write_content(machine_file(), other_id);
    EXPECT_NE(identity(), first);
}

TEST_F(HostIdentity, without_a_machine_identifier_is_made_once_and_kept) {
    const unsigned int first = identity();
    EXPECT_NE(first, 0U);
    EXPECT_EQ(identity(), first);
    struct stat status {};
    ASSERT_EQ(stat(own_file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(content_of(own_file()).size(), 33U);
    EXPECT_EQ(names_in(path("var/lib")).size(), 1U);

    std::filesystem::remove(own_file());
    EXPECT_NE(identity(), first);
}

TEST_F(HostIdentity, takes_a_machine_identifier_that_isnt_set_up_for_a_missing_one) {
    for (const char *text :
         {"", "uninitialized\n", "0123456789abcdef\n", "0123456789abcdef0123456789abcdeg\n"}) {
        write_content(machine_file(), text);
        write_content(own_file(), other_id);
        const unsigned int kept = identity();
        write_content(machine_file(), other_id);
        EXPECT_EQ(kept, identity()) << text;
    }
}

TEST_F(HostIdentity, is_made_anew_when_the_kept_one_is_damaged) {
    write_content(own_file(), "a crash left" + std::string(100, ' '));
    const unsigned int first = identity();
    EXPECT_EQ(identity(), first);
    EXPECT_EQ(content_of(own_file()).size(), 33U);
}

TEST_F(HostIdentity, is_the_same_for_all_that_make_it_at_once) {
    std::vector<unsigned int> numbers(8);
    std::vector<std::thread> threads;
    for (auto &number : numbers)
        threads.emplace_back([&] { number = identity(); });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(numbers, std::vector<unsigned int>(8, identity()));
}

TEST_F(HostIdentity, is_read_after_whoever_is_just_making_it) {
    std::filesystem::create_directories(path("var/lib"));
    const int fd = open(own_file().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    std::atomic<bool> done{false};
    unsigned int number = 0;
    std::thread other([&] {
        number = identity();
        done = true;
    });
    // Until the other waits for the lock: the system lists who does with an arrow.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done && content_of("/proc/locks").find("-> FLOCK") == std::string::npos &&
           std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(write(fd, other_id, 33), 33);
    close(fd);
    other.join();

    write_content(machine_file(), other_id);
    EXPECT_EQ(number, identity());
}

TEST_F(HostIdentity, that_cant_be_kept_is_still_stable) {
    write_content(path("var"), "a file in the way");
    const unsigned int first = identity();
    EXPECT_NE(first, 0U);
    EXPECT_EQ(identity(), first);
}

TEST_F(HostIdentity, of_the_library_is_the_machines) {
    if (content_of("/etc/machine-id").size() != 33)
        GTEST_SKIP() << "this machine has no identifier";
    EXPECT_EQ(vrd_get_hostid(), host_identity("/etc/machine-id", own_file()));
    EXPECT_EQ(vrd_get_hostid(), vrd_get_hostid());
}
