#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "ChildProcess.h"
#include "ServiceManagerDaemon.h"

namespace {

// Every test process has a binder context of its own, served by a daemon it
// started, so that tests run in parallel; its children inherit the context.
class CouplerTestEnvironment : public testing::Environment {
  public:
    void SetUp() override {
        const std::string context = "tvcoupler-" + std::to_string(getpid());
        setenv("TAVRIN_BINDER_CONTEXT", context.c_str(), 1);
        mDaemon = std::make_unique<ServiceManagerDaemon>(context);
        ASSERT_TRUE(mDaemon->serving());
        // No process of the test may start a daemon of its own.
        setenv("TAVRIN_SERVICEMANAGER", "/nonexistent/tavrin-servicemanager", 1);
    }
    void TearDown() override { mDaemon.reset(); }

  private:
    std::unique_ptr<ServiceManagerDaemon> mDaemon;
};

}  // namespace

int main(int argc, char** argv) {
    int childStatus = 0;
    if (tvtest::runChildRoleIfAsked(argc, argv, &childStatus)) return childStatus;
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new CouplerTestEnvironment);
    return RUN_ALL_TESTS();
}
