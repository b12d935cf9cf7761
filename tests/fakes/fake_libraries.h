/*
 * Libraries opened at run time, known by their file names. A library that no test touched is there
 * and has every symbol that its fake registered.
 */
#ifndef KZEMDLMGR_TESTS_FAKES_FAKE_LIBRARIES_H
#define KZEMDLMGR_TESTS_FAKES_FAKE_LIBRARIES_H

#include <map>
#include <string>
#include <vector>

namespace fakes {

constexpr char engine_library[] = "libqdccl.so";
constexpr char gateway_library[] = "libkzethtgw.3.so";
constexpr char config_library[] = "libkzacfgc.so";
constexpr char bus_library[] = "libkzamb.1.so";

using symbols = std::map<std::string, void *>;

// Makes a library known. The engine client, the gateway, the central configuration and the message
// bus are.
void add_library(const std::string &file, const symbols &exported);

// kze_dll_open gives this code, and a null handle.
void library_missing(const std::string &file, int code = 2);
// kze_dll_open gives this code and leaves the caller's handle as it is.
void library_open_keeps_handle(const std::string &file, int code);
// kze_dll_get_addr gives this code, and a null address.
void symbol_missing(const std::string &file, const std::string &symbol, int code = 2);
// kze_dll_get_addr gives this code, and the address all the same.
void symbol_found_with_code(const std::string &file, const std::string &symbol, int code);
// kze_dll_close gives this code; the handle counts as closed.
void library_close_fails(const std::string &file, int code);
// Takes back what the functions above set for a library.
void library_works(const std::string &file);

// How often a library was opened, and how many of its handles are not closed.
unsigned int times_opened(const std::string &file);
unsigned int open_handles(const std::string &file);
unsigned int open_handles();
// The paths as they were opened, and the symbols as they were looked up in a library, in order.
std::vector<std::string> opened_paths();
std::vector<std::string> looked_up(const std::string &file);
// The caller's handle is lost and won't be closed; it no longer counts as open.
void forget_one_handle(const std::string &file);

void reset_libraries();

}  // namespace fakes

#endif
