#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

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
    static const char kChildPrefix[] = "--child=";
    if (argc >= 2 && strncmp(argv[1], kChildPrefix, sizeof(kChildPrefix) - 1) == 0) {
        std::vector<std::string> args(argv + 2, argv + argc);
        return tvtest::runChildRole(argv[1] + sizeof(kChildPrefix) - 1, args);
    }
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new BinderTestEnvironment);
    return RUN_ALL_TESTS();
}
