// Test main: the appliance root must be in the environment before anything
// asks the platform for it.
#include <gtest/gtest.h>

#include "ApplianceRootEnv.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  webapi_test::ApplianceRoot();
  return RUN_ALL_TESTS();
}
