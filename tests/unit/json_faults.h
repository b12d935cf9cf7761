/*
 * Lets one allocation of the JSON library that writes messages fail, while it lives.
 */
#ifndef KZEMDLMGR_TESTS_UNIT_JSON_FAULTS_H
#define KZEMDLMGR_TESTS_UNIT_JSON_FAULTS_H

#include <cjson/cJSON.h>

#include <cstdlib>

// Threads: for the thread that made it, one at a time.
class json_faults {
  public:
    // The nth allocation from now; 1 is the next one.
    explicit json_faults(unsigned int nth) {
        left() = nth;
        cJSON_Hooks hooks = {allocate, free};
        cJSON_InitHooks(&hooks);
    }
    ~json_faults() { cJSON_InitHooks(nullptr); }
    json_faults(const json_faults &) = delete;
    json_faults &operator=(const json_faults &) = delete;

    static bool happened() { return left() == 0; }

  private:
    static unsigned int &left() {
        static unsigned int s_left = 0;
        return s_left;
    }
    static void *allocate(size_t size) {
        if (left() != 0 && --left() == 0) {
            return nullptr;
        }
        return malloc(size);
    }
};

#endif
