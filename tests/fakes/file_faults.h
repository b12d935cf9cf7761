/*
 * What the linked objects do with files and commands: each call is written to the journal ("delete
 * /a", "rename /a to /b", "move /a to /b" by the platform, "copy /a to /b", "mkdir /a", "opendir
 * /a", "run tar ..."), goes to the real function, and can be made to fail, also for root.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FILE_FAULTS_H
#define KZEMDLMGR_TESTS_FAKES_FILE_FAULTS_H

#include <functional>
#include <string>

namespace fakes {

enum class file_call { remove, rename, move, copy, make_directory, open_directory, run_command };

// Each call of that kind whose first text (path or command line) holds `part` gives this code and
// does nothing, until reset; a directory that can't be opened leaves the code in errno.
void file_call_fails(file_call kind, int code, const std::string &part = {});
// Runs on the calling thread within each call, before it (done: false) and after it (done: true).
void on_file_call(std::function<void(file_call kind, bool done)> hook);
// Commands are not run any more: the function gives their results. Null: they are run.
void instead_of_commands(std::function<int(const std::string &command)> function);
// What kze_rand_by_time gives from now on; it varies with the time to begin with.
void set_rand_by_time(int number);
// No more records in the journal, for tests of very many calls.
void keep_file_calls_quiet();

void reset_file_faults();

}  // namespace fakes

#endif
