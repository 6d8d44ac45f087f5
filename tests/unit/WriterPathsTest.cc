// The fixed places, as they are compiled in when nobody asks for others. Nothing here goes there.
#include <gtest/gtest.h>

#include "Paths.h"

TEST(Paths, DefaultsAreTheRequiredPlaces) {
  EXPECT_STREQ("/usr/local/orvik", paths::kInstallPrefix);
  EXPECT_STREQ("/usr/local/Cellar/orvik/2.4.1/work", paths::kSpoolFolder);
}
