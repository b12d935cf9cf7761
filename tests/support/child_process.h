/* A child process with a pipe to and from it. */
#ifndef KZE_TESTS_SUPPORT_CHILD_PROCESS_H
#define KZE_TESTS_SUPPORT_CHILD_PROCESS_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace kze_test {

/* Ended with SIGKILL at the latest when the object goes. */
class child_process {
  public:
    explicit child_process(const std::vector<std::string> &command) {
        int to[2];
        int from[2];
        int errors[2];
        if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0 ||
            pipe2(errors, O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(to[0], STDIN_FILENO);
            dup2(from[1], STDOUT_FILENO);
            dup2(errors[1], STDERR_FILENO);
            std::vector<char *> arguments;
            for (const std::string &word : command) {
                arguments.push_back(const_cast<char *>(word.c_str()));
            }
            arguments.push_back(nullptr);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        ::close(to[0]);
        ::close(from[1]);
        ::close(errors[1]);
        input_ = fdopen(to[1], "w");
        output_ = fdopen(from[0], "r");
        errors_ = fdopen(errors[0], "r");
    }
    ~child_process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait();
        }
        std::fclose(input_);
        std::fclose(output_);
        std::fclose(errors_);
    }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;

    pid_t pid() const { return pid_; }

    /* The next line of its output without its end; empty at the end. */
    std::string read_line() {
        std::string line;
        for (int c = std::getc(output_); c != EOF && c != '\n'; c = std::getc(output_)) {
            line.push_back(static_cast<char>(c));
        }
        return line;
    }
    /* All of its output that was not read yet, until its end. */
    std::string read_output() { return rest_of(output_); }
    /* All of its error output; for after its end. */
    std::string read_errors() { return rest_of(errors_); }
    void write_line(const std::string &text) {
        std::fprintf(input_, "%s\n", text.c_str());
        std::fflush(input_);
    }
    /* Nothing once its end was waited for: such numbers mean other processes to kill. */
    void signal(int number) const {
        if (pid_ > 0) {
            kill(pid_, number);
        }
    }
    /* Waits for its end; the status as waitpid gives it. */
    int wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return status;
    }

  private:
    static std::string rest_of(std::FILE *stream) {
        std::string text;
        for (int c = std::getc(stream); c != EOF; c = std::getc(stream)) {
            text.push_back(static_cast<char>(c));
        }
        return text;
    }

    pid_t pid_ = 0;
    std::FILE *input_ = nullptr;
    std::FILE *output_ = nullptr;
    std::FILE *errors_ = nullptr;
};

}  // namespace kze_test

#endif
