// Streams of drive-style names: what is opened, and what is kept out.
#include "lib/scripting/osal_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "lib/scripting/filename_mapper.h"
#include "tests/platform/test_support.h"

namespace {

class OsalFile : public testing::Test {
 protected:
  OsalFile() { std::filesystem::create_directories(Native("sd/folder")); }

  std::string Native(const std::string& name) { return m_root.path() + "/storage/" + name; }
  int ErrorOf(const char* name, const char* mode) {
    errno = 0;
    return osalFileOpen(name, mode) != nullptr ? 0 : errno;
  }

  TemporaryRoot m_root;
  FilenameMapper m_mapper;
};

TEST_F(OsalFile, OpensPlainFilesOfADriveOnly) {
  m_root.Write("/outside.txt", "secret");
  m_root.Write("/storage/sd/inside.txt", "text");
  std::filesystem::create_symlink("../../outside.txt", Native("sd/off"));
  std::filesystem::create_symlink("../inside.txt", Native("sd/folder/on"));
  ASSERT_EQ(0, mkfifo(Native("sd/pipe").c_str(), 0600));

  for (const char* mode : {"rb", "r+b", "w+b", "ab"}) {
    EXPECT_EQ(0, ErrorOf("SD:/folder/on", mode)) << mode;
    EXPECT_EQ(EXDEV, ErrorOf("SD:/off", mode)) << mode;
    EXPECT_EQ(EISDIR, ErrorOf("SD:/folder", mode)) << mode;
    EXPECT_NE(0, ErrorOf("SD:/pipe", mode)) << mode;  // and does not wait for the other end
    EXPECT_EQ(ENOENT, ErrorOf("USB1:/inside.txt", mode)) << mode;
  }
  EXPECT_EQ("secret", m_root.Read("/outside.txt"));
  EXPECT_EQ("", m_root.Read("/storage/sd/inside.txt"));  // "w+b" has truncated it
}

}  // namespace
