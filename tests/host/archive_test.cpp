// Zip presentations: those that authors make, and those that nobody should extract.
#include <gtest/gtest.h>
#include <zip.h>

#include <filesystem>
#include <optional>

#include "lib/hardware/device_secrets/key_files.h"
#include "lib/platform/registry_store.h"
#include "lib/scripting/autorun_archive.h"
#include "tests/platform/test_support.h"

namespace {

namespace fs = std::filesystem;

struct File {
  std::string name;
  std::string content;
  uint32_t mode = 0100644;
  std::optional<uint32_t> claimed_size{};
};

template <typename T>
void Put(std::string* out, T value) {
  for (size_t i = 0; i < sizeof(T); ++i) *out += static_cast<char>(value >> (8 * i));
}

// A zip file, byte by byte, stored: libraries that write archives refuse to write hostile ones.
std::string Zip(const std::vector<File>& files) {
  std::string zip;
  std::string directory;
  for (const File& file : files) {
    const auto offset = static_cast<uint32_t>(zip.size());
    const auto size = static_cast<uint32_t>(file.content.size());
    uint32_t crc = ~0u;
    for (const char c : file.content) {
      crc ^= static_cast<unsigned char>(c);
      for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320u : 0);
    }
    std::string common;
    Put<uint16_t>(&common, 20);  // version
    Put<uint16_t>(&common, 0);   // flags
    Put<uint16_t>(&common, 0);   // stored
    Put<uint32_t>(&common, 0x21 << 16);
    Put<uint32_t>(&common, ~crc);
    Put<uint32_t>(&common, size);
    Put<uint32_t>(&common, file.claimed_size.value_or(size));
    Put<uint16_t>(&common, static_cast<uint16_t>(file.name.size()));
    Put<uint16_t>(&common, 0);  // extra
    zip += "PK\3\4" + common + file.name + file.content;
    directory += "PK\1\2";
    Put<uint16_t>(&directory, 3 << 8 | 20);  // made on Unix
    directory += common;
    Put<uint16_t>(&directory, 0);  // comment
    Put<uint32_t>(&directory, 0);  // disk, internal attributes
    Put<uint32_t>(&directory, file.mode << 16);
    Put<uint32_t>(&directory, offset);
    directory += file.name;
  }
  std::string end = "PK\5\6";
  Put<uint32_t>(&end, 0);
  Put<uint16_t>(&end, static_cast<uint16_t>(files.size()));
  Put<uint16_t>(&end, static_cast<uint16_t>(files.size()));
  Put<uint32_t>(&end, static_cast<uint32_t>(directory.size()));
  Put<uint32_t>(&end, static_cast<uint32_t>(zip.size()));
  Put<uint16_t>(&end, 0);
  return zip + directory + end;
}

const File kScript{"autozip.plm", "Print 1\n"};

class ArchiveTest : public testing::Test {
 protected:
  ArchiveTest() {
    fs::create_directories(m_root.path() + "/storage/tmp");
    fs::create_directories(m_root.path() + "/storage/sd");
  }
  AutorunArchive Extract(const std::string& zip) {
    m_root.Write("/storage/sd/autorun.zip", zip);
    return ExtractAutorunArchive(m_mapper, "SD:/autorun.zip");
  }
  std::string Tmp(const std::string& name) { return m_root.Read("/storage/tmp/" + name); }
  bool TmpIsEmpty() { return fs::is_empty(m_root.path() + "/storage/tmp"); }
  // An archive of that one file, compressed by the library, encrypted if a method is given.
  std::string Packed(const std::string& content, uint16_t encryption, const char* password) {
    const std::string path = m_root.path() + "/packed.zip";
    fs::remove(path);
    zip_t* zip = zip_open(path.c_str(), ZIP_CREATE, nullptr);
    zip_file_add(zip, "autozip.plm", zip_source_buffer(zip, content.data(), content.size(), 0), 0);
    EXPECT_EQ(zip_file_set_encryption(zip, 0, encryption, password), 0);
    EXPECT_EQ(zip_close(zip), 0);
    return m_root.Read("/packed.zip");
  }

  const TemporaryRoot m_root;
  FilenameMapper m_mapper;
};

TEST_F(ArchiveTest, ExtractsAPresentation) {
  m_root.Write("/storage/tmp/autozip.plm", "an older one");
  testing::internal::CaptureStderr();
  const AutorunArchive archive = Extract(Zip({{"media/", "", 040755},
                                              {"media/a/clip.txt", "clip"},
                                              {"./media/b.txt", ""},
                                              {"autozip.bas", "bas"},
                                              kScript}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Extracting autorun.zip.\nLooking for autozip.plm within zip file\n"
            "Found autozip.plm inside autorun.zip\n");
  EXPECT_EQ(archive.error, "");
  EXPECT_EQ(archive.script, "tmp:/autozip.plm");
  EXPECT_EQ(Tmp("autozip.plm"), kScript.content);
  EXPECT_EQ(Tmp("media/a/clip.txt"), "clip");
  EXPECT_EQ(Extract(Zip({{"autozip.bas", "bas"}})).script, "tmp:/autozip.bas");
}

TEST_F(ArchiveTest, RefusesWhatIsNoPresentation) {
  const std::string good = Zip({kScript});
  struct {
    std::string zip;
    const char* error;
  } const kRows[] = {
      {Zip({kScript, {"../evil", "x"}}), "'../evil' leads out of the archive"},
      {Zip({kScript, {"a/../../evil", "x"}}), "'a/../../evil' leads out of the archive"},
      {Zip({kScript, {"/evil", "x"}}), "'/evil' has an absolute name"},
      {Zip({kScript, {"c:evil", "x"}}), "is not allowed"},
      {Zip({kScript, {"a\\b", "x"}}), "is not allowed"},
      {Zip({kScript, {"a\nb", "x"}}), "'a?b' has a character in its name that is not allowed"},
      {Zip({kScript, {std::string(256, 'n'), "x"}}), "wrong length"},
      {Zip({kScript, {"link", "/etc", 0120777}}), "'link' is neither a file nor a folder"},
      {Zip({kScript, {"pipe", "", 0010644}}), "is neither a file nor a folder"},
      {Zip({kScript, kScript}), "'autozip.plm' is there twice"},
      {Zip({kScript, {"./autozip.plm", "x"}}), "is there twice"},
      {Zip({kScript, {"autozip.plm/x", "x"}}), "cannot be written"},
      {Zip({kScript, {"big", "x", 0100644, 0xF0000000u}}), ""},
      {Zip({kScript, {"small", "xyz", 0100644, 2}}), ""},
      {Zip({{"other.plm", "x"}}), "neither autozip.plm nor autozip.bas"},
      {good.substr(0, good.size() / 2), ""},
      {good.substr(0, good.size() - 1), ""},
      {std::string(10, '\0'), ""},
      {"", ""},
  };
  for (const auto& row : kRows) {
    const AutorunArchive archive = Extract(row.zip);
    EXPECT_EQ(archive.script, "");
    EXPECT_TRUE(archive.error.starts_with("Failed to extract 'SD:/autorun.zip': "));
    EXPECT_NE(archive.error.find(row.error), std::string::npos) << archive.error;
  }
  // All but the archive without a script took back what they had written.
  fs::remove(m_root.path() + "/storage/tmp/other.plm");
  EXPECT_TRUE(TmpIsEmpty());
  EXPECT_FALSE(fs::exists(m_root.path() + "/storage/evil"));
}

TEST_F(ArchiveTest, FollowsNoLinkAtTheTarget) {
  fs::create_directories(m_root.path() + "/outside");
  m_root.Write("/outside/file", "precious");
  fs::create_symlink("../../outside", m_root.path() + "/storage/tmp/folder");
  fs::create_symlink("../../outside/file", m_root.path() + "/storage/tmp/autozip.plm");
  EXPECT_NE(Extract(Zip({{"folder/file", "x"}, kScript})).error, "");
  EXPECT_EQ(Extract(Zip({kScript})).script, "tmp:/autozip.plm");
  EXPECT_EQ(m_root.Read("/outside/file"), "precious");
  EXPECT_EQ(Tmp("autozip.plm"), kScript.content);
}

TEST_F(ArchiveTest, RefusesBombs) {
  EXPECT_NE(Extract(Packed(std::string(64 << 20, '\0'), 0, nullptr)).error.find("suspicious size"),
            std::string::npos);
  // A directory that claims billions of entries must not be believed.
  std::string zip = Zip({kScript});
  std::string tail = "PK\6\6";
  Put<uint64_t>(&tail, 44);
  Put<uint32_t>(&tail, 45 << 16 | 45);
  Put<uint64_t>(&tail, 0);
  Put<uint64_t>(&tail, uint64_t{1} << 31);
  Put<uint64_t>(&tail, uint64_t{1} << 31);
  Put<uint64_t>(&tail, 57);
  Put<uint64_t>(&tail, 49);
  tail += "PK\6\7";
  Put<uint32_t>(&tail, 0);
  Put<uint64_t>(&tail, zip.size() - 22);
  Put<uint32_t>(&tail, 1);
  tail += "PK\5\6" + std::string(4, '\0') + std::string(12, '\xFF') + std::string(2, '\0');
  EXPECT_NE(Extract(zip.substr(0, zip.size() - 22) + tail).error, "");
  EXPECT_TRUE(TmpIsEmpty());
}

TEST_F(ArchiveTest, OpensEncryptedArchivesWithTheDevicesKey) {
  const std::string zip = Packed("Print 2\n", ZIP_EM_AES_256, "open sesame");
  EXPECT_NE(Extract(zip).error.find("the device has no key for it"), std::string::npos);

  m_root.Write("/etc/orvex/keys/registry", NewKeyFile());
  fs::permissions(m_root.path() + "/etc/orvex/keys/registry", fs::perms::owner_read);
  const KeyFileSecrets secrets;
  const auto set_key = [](const std::string& passphrase) {
    GetRegistryUnprivilegedClient().Write("security", "autozipkey", Obfuscate(passphrase));
  };
  set_key("wrong");
  EXPECT_NE(Extract(zip).error, "");
  EXPECT_TRUE(TmpIsEmpty());
  set_key("open sesame");
  EXPECT_EQ(Extract(zip).error, "");
  EXPECT_EQ(Tmp("autozip.plm"), "Print 2\n");
  EXPECT_NE(
      Extract(Packed("x", ZIP_EM_TRAD_PKWARE, "open sesame")).error.find("not encrypted with AES"),
      std::string::npos);
}

}  // namespace
