// Names, drives and what stays out of reach, in a device root made for each test.
#include "lib/scripting/filename_mapper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "lib/scripting/host_files.h"
#include "tests/platform/test_support.h"

namespace {

namespace fs = std::filesystem;

class DriveTest : public testing::Test {
 protected:
  DriveTest() {
    for (const char* drive : {"sd", "usb1", "sys", "tmp"}) fs::create_directories(Native(drive));
  }

  fs::path Native(const std::string& below_storage) {
    return m_root.path() + "/storage/" + below_storage;
  }
  void Write(const std::string& below_storage, const std::string& content) {
    m_root.Write("/storage/" + below_storage, content);
  }
  std::string Read(const std::string& below_storage) {
    return m_root.Read("/storage/" + below_storage);
  }
  int OpenError(const std::string& device_path, int flags = O_RDONLY) {
    errno = 0;
    return OpenBeneathDrive(device_path, flags, 0666) ? 0 : errno;
  }

  TemporaryRoot m_root;
  FilenameMapper m_mapper;
};

TEST(FilenameCracker, TakesNamesApart) {
  struct Row {
    const char *name, *drive, *directory, *filename, *rebuilt;
  };
  for (const Row& row : {
           Row{"sd:/a/b.txt", "SD", "/a", "b.txt", "SD:/a/b.txt"},
           Row{"sD:/x", "SD", "/", "x", "SD:/x"},
           Row{"SD:x", "SD", "", "x", "SD:x"},
           Row{"SD:", "SD", "", "", "SD:"},
           Row{"a/b//c", "", "a/b", "c", "a/b/c"},
           Row{"//", "", "/", "", "/"},
           Row{"usb1:/é/", "USB1", "/é", "", "USB1:/é/"},
           Row{"", "", "", "", ""},
       }) {
    const FilenameCracker cracked = FilenameCracker::Crack(row.name);
    EXPECT_EQ(cracked.GetDrive(), row.drive) << row.name;
    EXPECT_EQ(cracked.GetDirectory(), row.directory) << row.name;
    EXPECT_EQ(cracked.GetFilename(), row.filename) << row.name;
    EXPECT_EQ(cracked.ToString(), row.rebuilt) << row.name;
  }
}

TEST_F(DriveTest, MapsNames) {
  m_mapper.SetCurrentDirectory("USB1:/media");
  for (const auto& [name, path] : std::initializer_list<std::pair<std::string, std::string>>{
           {"sd:/a/b.txt", "/storage/sd/a/b.txt"},
           {"SD:/a/./b/../c.txt", "/storage/sd/a/c.txt"},
           {"SD:a", "/storage/sd/a"},
           {"SD:/", "/storage/sd"},
           {"c.txt", "/storage/usb1/media/c.txt"},
           {"x/../../c.txt", "/storage/usb1/c.txt"},
           {"/c.txt", "/storage/usb1/c.txt"},
           {"file://SD:/a", "/storage/sd/a"},
           {"FILE:///sd:/a", "/storage/sd/a"},
           {"file://c.txt", "/storage/usb1/media/c.txt"},
           {"sd://a", "/storage/sd/a"},
       }) {
    EXPECT_EQ(m_mapper.Map(name), path) << name;
  }
}

TEST_F(DriveTest, RefusesNamesThatLeadNowhere) {
  EXPECT_THROW(m_mapper.Map("SSD:/a"), FilenameMapper::BadDriveException);  // not inserted
  EXPECT_THROW(m_mapper.Map("C:/a"), FilenameMapper::BadDriveException);
  EXPECT_THROW(m_mapper.Map(":/a"), FilenameMapper::BadDriveException);
  EXPECT_THROW(m_mapper.Map("http://host/a"), FilenameMapper::NotFileSchemeException);
  std::string unused;
  for (const std::string& name :
       {std::string("SD:/.."), std::string("SD:/a/../../sys/x"), std::string("../../x"),
        std::string("SD:/a\0b", 7), "SD:/" + std::string(kMaxDevicePath, 'a')}) {
    EXPECT_THROW(m_mapper.Map(name), FilenameMapper::BadNameException) << name;
    EXPECT_FALSE(m_mapper.TryMap(name, &unused)) << name;
  }
  const std::string longest(kMaxDevicePath - std::string("/storage/sd/").size(), 'a');
  EXPECT_EQ(m_mapper.Map("SD:/" + longest).size(), kMaxDevicePath);
}

TEST_F(DriveTest, KeepsACurrentDirectoryAndADefaultDrive) {
  EXPECT_EQ(m_mapper.GetCurrentDirectory().ToString(), "SYS:/");
  m_mapper.SetCurrentDirectory("SD:/a");
  m_mapper.SetCurrentDirectory("b/");
  EXPECT_EQ(m_mapper.Map("c"), "/storage/sd/a/b/c");
  m_mapper.SetCurrentDirectory("./d/..//../b");
  m_mapper.SetCurrentDirectory("../../..");
  EXPECT_EQ(m_mapper.GetCurrentDirectory().ToString(), "SD:/a/b/");
  m_mapper.SetCurrentDirectory("../..");
  EXPECT_EQ(m_mapper.GetCurrentDirectory().ToString(), "SD:/");
  m_mapper.SetDefaultDrive("usb1:");
  EXPECT_EQ(m_mapper.GetDefaultDrive(), "USB1:");
  EXPECT_EQ(m_mapper.Map("c"), "/storage/usb1/c");
  m_mapper.SetDefaultDrive("nonsense:");
  EXPECT_EQ(m_mapper.GetDefaultDrive(), "USB1:");
}

TEST_F(DriveTest, OpensBeneathTheDriveOnly) {
  Write("sd/a/f", "text");
  Write("sys/secret", "secret");
  fs::create_symlink("f", Native("sd/a/near"));
  fs::create_symlink("../../sys/secret", Native("sd/a/far"));
  fs::create_symlink(Native("sys"), Native("sd/absolute"));
  ASSERT_EQ(::mkfifo(Native("sd/fifo").c_str(), 0600), 0);

  EXPECT_EQ(OpenError("/storage/sd/a/f"), 0);
  EXPECT_EQ(OpenError("/storage/sd/a/near"), 0);
  EXPECT_EQ(OpenError("/storage/sd/a/far"), EXDEV);
  EXPECT_EQ(OpenError("/storage/sd/absolute/secret"), EXDEV);
  EXPECT_EQ(OpenError("/storage/sd/a/far", O_WRONLY | O_TRUNC), EXDEV);
  EXPECT_EQ(Read("sys/secret"), "secret");
  EXPECT_EQ(OpenError("/storage/sd/a"), EISDIR);
  EXPECT_EQ(OpenError("/storage/sd"), EISDIR);
  EXPECT_EQ(OpenError("/storage/sd/a", O_RDONLY | O_DIRECTORY), 0);
  EXPECT_EQ(OpenError("/storage/sd/missing"), ENOENT);
  EXPECT_EQ(OpenError("/storage/sd/a/f/x"), ENOTDIR);
  EXPECT_EQ(OpenError("/storage/sd/" + std::string(256, 'n')), ENAMETOOLONG);
  EXPECT_EQ(OpenError("/storage/nowhere/x"), ENOENT);
  EXPECT_EQ(OpenError("/etc/passwd"), ENOENT);
  // Neither opening a pipe nor using it may wait for the other end.
  EXPECT_EQ(OpenError("/storage/sd/fifo"), EINVAL);
  EXPECT_EQ(OpenError("/storage/sd/fifo", O_WRONLY), ENXIO);
  EXPECT_EQ(OpenError("/storage/sd/fifo", O_RDWR), EINVAL);
}

TEST_F(DriveTest, ADriveMayBeALink) {
  Write("elsewhere/f", "text");
  fs::remove(Native("usb1"));
  fs::create_symlink(Native("elsewhere"), Native("usb1"));
  EXPECT_EQ(OpenError(m_mapper.Map("USB1:/f")), 0);
}

TEST_F(DriveTest, CopiesAndMovesFiles) {
  Write("sd/a", "one");
  Write("sd/b", "two");
  fs::create_directory(Native("sd/folder"));

  EXPECT_TRUE(host_files::CopyFile(m_mapper, "SD:/a", "usb1:/copy"));
  EXPECT_EQ(Read("usb1/copy"), "one");
  EXPECT_TRUE(host_files::CopyFile(m_mapper, "SD:/a", "SD:/b"));
  EXPECT_EQ(Read("sd/b"), "one");
  EXPECT_TRUE(host_files::CopyFile(m_mapper, "SD:/a", "SD:/a"));
  EXPECT_EQ(Read("sd/a"), "one");
  EXPECT_TRUE(host_files::MoveFile(m_mapper, "SD:/a", "USB1:/moved"));
  EXPECT_EQ(Read("usb1/moved"), "one");
  EXPECT_FALSE(fs::exists(Native("sd/a")));

  // An earlier process of this id was cut off while it copied.
  for (int i = 0; i < 32; ++i) {
    Write("usb1/.copy-" + std::to_string(::getpid()) + "-" + std::to_string(i), "half");
  }
  EXPECT_TRUE(host_files::CopyFile(m_mapper, "SD:/b", "USB1:/again"));

  EXPECT_FALSE(host_files::CopyFile(m_mapper, "SD:/folder", "SD:/c"));
  EXPECT_FALSE(host_files::CopyFile(m_mapper, "SD:/b", "SD:/folder"));
  EXPECT_FALSE(host_files::CopyFile(m_mapper, "SD:/b", "SD:/missing/c"));
  EXPECT_FALSE(host_files::MoveFile(m_mapper, "SD:/folder", "SD:/c"));
  EXPECT_FALSE(host_files::MoveFile(m_mapper, "SD:/missing", "SD:/c"));
  EXPECT_FALSE(host_files::MoveFile(m_mapper, "SD:/b", "SD:/../x"));
  // Nothing half-done is left behind.
  size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(Native("sd"))) ++entries;
  EXPECT_EQ(entries, 2u);
}

TEST_F(DriveTest, DeletesAndCreates) {
  Write("sd/f", "");
  Write("sys/kept", "kept");
  fs::create_symlink(Native("sys"), Native("sd/link"));
  EXPECT_TRUE(host_files::CreateDirectory(m_mapper, "SD:/new"));
  EXPECT_FALSE(host_files::CreateDirectory(m_mapper, "SD:/new"));
  EXPECT_FALSE(host_files::CreateDirectory(m_mapper, "SD:/x/y"));
  EXPECT_FALSE(host_files::DeleteFile(m_mapper, "SD:/new"));
  EXPECT_FALSE(host_files::DeleteDirectory(m_mapper, "SD:/f"));
  EXPECT_FALSE(host_files::DeleteDirectory(m_mapper, "SD:/"));
  EXPECT_FALSE(host_files::DeleteFile(m_mapper, "SD:/link/kept"));
  EXPECT_TRUE(host_files::DeleteDirectory(m_mapper, "SD:/new"));
  EXPECT_TRUE(host_files::DeleteFile(m_mapper, "SD:/f"));
  EXPECT_TRUE(host_files::DeleteFile(m_mapper, "SD:/link"));  // the link, not what it leads to
  EXPECT_EQ(Read("sys/kept"), "kept");
}

TEST_F(DriveTest, FormattingStaysInsideTheRoot) {
  Write("sd/a/b/c", "x");
  Write("outside/precious", "kept");
  fs::create_symlink(Native("outside"), Native("sd/a/link"));
  EXPECT_FALSE(host_files::FormatDrive("SD:", "floppy"));
  EXPECT_FALSE(host_files::FormatDrive("SD:/a", "vfat"));
  EXPECT_TRUE(fs::exists(Native("sd/a/b/c")));
  EXPECT_TRUE(host_files::FormatDrive("sd:/", "exfat"));
  EXPECT_TRUE(fs::is_empty(Native("sd")));
  EXPECT_EQ(Read("outside/precious"), "kept");

  fs::remove(Native("usb1"));
  fs::create_symlink(Native("outside"), Native("usb1"));
  EXPECT_FALSE(host_files::FormatDrive("USB1:", "exfat"));
  EXPECT_EQ(Read("outside/precious"), "kept");
  EXPECT_FALSE(host_files::FormatDrive("SYS:", "ext4"));
  EXPECT_FALSE(host_files::FormatDrive("SSD:", "ext4"));
}

TEST_F(DriveTest, EjectedMediaCanBePutBack) {
  Write("usb1/f", "text");
  EXPECT_TRUE(host_files::EjectDrive("USB1:"));
  std::string unused;
  EXPECT_FALSE(m_mapper.TryMap("USB1:/f", &unused));
  EXPECT_FALSE(host_files::EjectDrive("USB1:"));
  EXPECT_TRUE(fs::exists(m_root.path() + "/var/lib/orvex/ejected/usb1/f"));
  Write("usb1/g", "");
  EXPECT_TRUE(host_files::EjectDrive("USB1:"));
  EXPECT_TRUE(fs::exists(m_root.path() + "/var/lib/orvex/ejected/usb1-2/g"));
}

}  // namespace
