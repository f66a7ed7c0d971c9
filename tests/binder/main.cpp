#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TestSupport.h"

namespace {

// The test process serves the registry that its children meet through.
class BinderTestEnvironment : public testing::Environment {
  public:
    void SetUp() override { tvtest::becomeTestContextManager(); }
};

}  // namespace

int main(int argc, char** argv) {
    int childStatus = 0;
    if (tvtest::runChildRoleIfAsked(argc, argv, &childStatus)) return childStatus;
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new BinderTestEnvironment);
    return RUN_ALL_TESTS();
}
