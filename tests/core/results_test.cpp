// Result texts: the default error-name hook and PortErrorName with the
// default hook, a hook that names nothing and a hook with its own texts.
#include <gtest/gtest.h>

#include <string>

#include "core/results.h"
#include "port/port.h"
#include "zvxfer.h"

namespace zvxfer {
namespace {

const std::string kUnknown = "Unknown error code";

struct CodeText {
    int32_t code;
    const char *text;
};
#define TEST_CODE_TEXT_(code, name, text) CodeText{code, text},
constexpr CodeText kTransfer[] = {XFER_RESULT_MAP(TEST_CODE_TEXT_)};
constexpr CodeText kPortLayer[] = {PORT_RESULT_MAP(TEST_CODE_TEXT_)};
#undef TEST_CODE_TEXT_

// Installs an error-name hook on the process's hook record for one test.
class ErrorNameHook {
  public:
    explicit ErrorNameHook(XferErrorNameFn fn) : hooks_(ThreadHooksFind()) {
        saved_ = hooks_->UserErrorNameFunction;
        hooks_->UserErrorNameFunction = fn;
    }
    ~ErrorNameHook() { hooks_->UserErrorNameFunction = saved_; }

  private:
    ThreadHooks *hooks_;
    XferErrorNameFn saved_;
};

const char *NamesNothing(int32_t) {
    return nullptr;
}
const char *NamesMinus24(int32_t code) {
    return code == -24 ? "Nicht unterstuetzt" : nullptr;
}

TEST(XferErrorName, OwnTextsTransferTextsAndUnknown) {
    EXPECT_STREQ(XferErrorName(0), "Successful");
    EXPECT_STREQ(XferErrorName(-1), "General Error");
    EXPECT_STREQ(XferErrorName(-8), "Buffer Empty");
    EXPECT_STREQ(XferErrorName(-9), "Buffer is Full");
    EXPECT_STREQ(XferErrorName(-10), "Timeout Error");
    for (const CodeText &c : kTransfer) EXPECT_STREQ(XferErrorName(c.code), c.text) << c.code;
    // The port-layer codes it has no short text for are unknown to it.
    for (int32_t code : {-7, -2, -6, -11, -24, -42, -600, -624, 1, 601, INT32_MIN})
        EXPECT_EQ(XferErrorName(code), kUnknown) << code;
}

TEST(PortErrorName, DefaultHookAnswersEverything) {
    ErrorNameHook hook(&XferErrorName); // what a new hook record holds
    EXPECT_EQ(PortErrorName(-24), kUnknown);
    EXPECT_STREQ(PortErrorName(-8), "Buffer Empty");
    EXPECT_STREQ(PortErrorName(-602), "Can't open xfer file");
}

TEST(PortErrorName, TablesAnswerWhenTheHookNamesNothing) {
    ErrorNameHook hook(&NamesNothing);
    for (const CodeText &c : kPortLayer) EXPECT_STREQ(PortErrorName(c.code), c.text) << c.code;
    for (const CodeText &c : kTransfer) EXPECT_STREQ(PortErrorName(c.code), c.text) << c.code;
    for (int32_t code : {-29, -43, -600, -624, 1, -100})
        EXPECT_EQ(PortErrorName(code), kUnknown) << code;
}

TEST(PortErrorName, HookTextWinsWhereItAnswers) {
    ErrorNameHook hook(&NamesMinus24);
    EXPECT_STREQ(PortErrorName(-24), "Nicht unterstuetzt");
    EXPECT_STREQ(PortErrorName(-25), "Illegal baud rate");
}

} // namespace
} // namespace zvxfer
