/*
 * Small plug-ins for the host, one library for each behaviour. PLUGIN is the name; the other macros
 * are the behaviours. Each call adds a line to the tree's file "events".
 */
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#define JOIN_NAMES(a, b) a##b
#define FUNCTION(name, suffix) JOIN_NAMES(name, suffix)
#define TEXT_OF(name) #name
#define NAME_TEXT(name) TEXT_OF(name)
#define EXPORTED extern "C" __attribute__((visibility("default")))

#ifndef INIT_RESULT
#define INIT_RESULT 0
#endif

namespace {

std::string in_tree(const char *name) {
    return std::string(secure_getenv("KZE_AGENT_HOME")) + "/../" + name;
}

[[maybe_unused]] void add_event(const char *what) {
    const bool on_main_thread = getpid() == static_cast<pid_t>(syscall(SYS_gettid));
    const std::string line = std::string(NAME_TEXT(PLUGIN)) + " " + what +
                             (on_main_thread ? "\n" : " on another thread\n");
    const int file =
        open(in_tree("events").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (write(file, line.data(), line.size()) < 0) {
        abort();
    }
    close(file);
}

#ifdef WAITS
/* Stays in the call until the tree has a file of that name. */
void wait_for(const char *name) {
    while (access(in_tree(name).c_str(), F_OK) != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}
#endif

#ifdef STARTS_A_PROGRAM
/* As a plug-in of the agent does: fork, exec, wait. */
void start_a_program() {
    const std::string command = "grep SigBlk /proc/self/status > '" + in_tree("mask") + "'";
    const pid_t child = fork();
    if (child == 0) {
        execlp("sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    waitpid(child, nullptr, 0);
}
#endif

}  // namespace

#ifndef WITHOUT_INIT
EXPORTED int FUNCTION(PLUGIN, _init)() {
    add_event("init");
#ifdef WAITS
    wait_for("go_on_with_init");
#endif
#ifdef STARTS_A_PROGRAM
    start_a_program();
#endif
    return INIT_RESULT;
}
#endif

#ifndef WITHOUT_UNINIT
EXPORTED int FUNCTION(PLUGIN, _uninit)() {
    add_event("uninit");
#ifdef WAITS
    wait_for("go_on_with_uninit");
#endif
#ifdef UNINIT_RESULT
    return UNINIT_RESULT;
#else
    return 0;
#endif
}
#endif
