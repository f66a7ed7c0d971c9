#include <binder/IBinder.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ServedChild.h"
#include "TestService.h"
#include "TestSupport.h"
#include "runtime/Runtime.h"

using android::IBinder;
using android::sp;
using android::tvbinder::Runtime;
using tvtest::callInt;
using tvtest::ServedChild;
using tvtest::TestService;

namespace {

// What the forked child found; 0 when all is well.
int checkForkedChild(const std::string& serviceName, uint64_t parentEndpoint) {
    if (Runtime::current() != nullptr) return 1;  // the parent's state must be gone
    sp<IBinder> service = tvtest::lookup(serviceName, std::chrono::seconds(10));
    if (service == nullptr) return 2;
    if (callInt(service, TestService::ECHO, 5) != 5) return 3;
    if (Runtime::current() == nullptr || Runtime::current()->endpoint() == parentEndpoint) return 4;
    return 0;
}

TEST(Fork, AForkedChildGetsItsOwnEndpointAndLeavesTheParentsAlone) {
    ServedChild service;
    ASSERT_TRUE(service.ready());
    const uint64_t parentEndpoint = Runtime::current()->endpoint();
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) _exit(checkForkedChild(service.name(), parentEndpoint));

    const int status = tvproc::waitForExit(child, std::chrono::seconds(20));
    if (status == -1) {
        tvproc::killAndReap(child);
        FAIL() << "the forked child did not finish";
    }
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(parentEndpoint, Runtime::current()->endpoint());
    EXPECT_EQ(6, callInt(service.binder(), TestService::ECHO, 6));
}

}  // namespace
