// A test fixture that gathers the library's debugger output for one test.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "zvxfer.h"

namespace zvxfer {

struct Traced : ::testing::Test {
    Traced() {
        Trace().clear();
        ZvSetDebugOutput(&Keep);
    }
    ~Traced() override { ZvSetDebugOutput(nullptr); }

    static std::string &Trace() {
        static std::string trace;
        return trace;
    }
    // How often `text` appears in what was traced so far.
    static int Count(const std::string &text) {
        int n = 0;
        for (std::size_t at = Trace().find(text); at != std::string::npos;
             at = Trace().find(text, at + 1))
            ++n;
        return n;
    }

  private:
    static void Keep(const char *text) { Trace() += text; }
};

} // namespace zvxfer
