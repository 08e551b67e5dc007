// What the device's keys open, and that nothing else does.
#include <gtest/gtest.h>

#include <filesystem>

#include "lib/hardware/device_secrets/key_files.h"
#include "lib/scripting/enciphered_source.h"
#include "tests/platform/test_support.h"

namespace {

namespace fs = std::filesystem;

class SecretsTest : public testing::Test {
 protected:
  void Provision(const std::string& name, const std::string& content) {
    const std::string path = "/etc/orvex/keys/" + name;
    m_root.Write(path, content);
    fs::permissions(m_root.path() + path, fs::perms::owner_read | fs::perms::owner_write);
  }
  // The error's text; empty when there is none.
  template <typename F>
  static std::string ErrorOf(F&& operation) {
    try {
      operation();
    } catch (const DeviceSecrets::Error& error) {
      return error.what();
    }
    return {};
  }

  const TemporaryRoot m_root;
  const KeyFileSecrets m_secrets;
};

TEST_F(SecretsTest, DecipherWhatWasEncipheredAndNothingElse) {
  Provision("script-osps", NewKeyFile());
  Provision("script-pkps", NewKeyFile());
  for (const std::string& plain :
       {std::string("Print 1\n"), std::string(), std::string(70'000, 'x')}) {
    for (const char* header : {"OSPS", "PKPS"}) {
      const std::string enciphered = EncipherSource(header, plain);
      EXPECT_TRUE(IsEncipheredSource(enciphered));
      EXPECT_EQ(m_secrets.DecipherSource(enciphered), plain);
    }
  }
  const std::string good = EncipherSource("OSPS", "Print 1\n");
  EXPECT_NE(good, EncipherSource("OSPS", "Print 1\n"));  // never the same nonce
  for (size_t i = 0; i < good.size(); ++i) {
    std::string changed = good;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    EXPECT_NE(ErrorOf([&] { m_secrets.DecipherSource(changed); }), "") << i;
    EXPECT_NE(ErrorOf([&] { m_secrets.DecipherSource(good.substr(0, i)); }), "") << i;
  }
  EXPECT_NE(ErrorOf([&] { m_secrets.DecipherSource("PKPS" + good.substr(4)); }), "");

  std::string plain;
  EXPECT_TRUE(DecipherScriptSource(good, &plain));
  EXPECT_EQ(plain, "Print 1\n");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(DecipherScriptSource("Print 1\n", &plain));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Plumscript decryption failed: it is no enciphered script\n");
}

TEST_F(SecretsTest, FailClearlyWithoutAKeyAndRefuseOpenOnes) {
  const std::string sealed(64, '0');
  EXPECT_EQ(ErrorOf([&] { m_secrets.DecipherSource("OSPS" + sealed); }),
            "this device has no key for enciphered scripts (/etc/orvex/keys/script-osps: No such "
            "file or directory)");
  EXPECT_NE(ErrorOf([&] { m_secrets.Reveal(sealed); }), "");
  EXPECT_NE(ErrorOf([&] { m_secrets.IsUnlockCode("x"); }), "");
  EXPECT_NE(ErrorOf([&] { m_secrets.IsDeviceDataGenuine("d", std::string(64, 's')); }), "");

  const std::string key = NewKeyFile();
  Provision("registry", key);
  fs::permissions(m_root.path() + "/etc/orvex/keys/registry", fs::perms::others_read,
                  fs::perm_options::add);
  EXPECT_EQ(ErrorOf([&] { m_secrets.Reveal(sealed); }),
            "/etc/orvex/keys/registry is open to others than its owner");
  for (const std::string& bad : {std::string(), key.substr(2), "zz" + key.substr(2), key + key}) {
    Provision("registry", bad);
    const std::string error = ErrorOf([&] { m_secrets.Reveal(sealed); });
    EXPECT_EQ(error, "/etc/orvex/keys/registry is not 32 bytes in hexadecimal");
  }
}

TEST_F(SecretsTest, RevealPassphrases) {
  Provision("registry", NewKeyFile());
  EXPECT_EQ(m_secrets.Reveal(" " + Obfuscate("open sesame") + "\n"), "open sesame");
  for (const char* bad : {"", "open sesame", "00", "0g"}) {
    EXPECT_NE(ErrorOf([&] { m_secrets.Reveal(bad); }), "") << bad;
  }
}

TEST_F(SecretsTest, TellTheUnlockCode) {
  Provision("unlock", UnlockFile("1234"));
  EXPECT_TRUE(m_secrets.IsUnlockCode("1234"));
  EXPECT_FALSE(m_secrets.IsUnlockCode("12345"));
  EXPECT_FALSE(m_secrets.IsUnlockCode(""));
  for (const char* bad : {"", "pbkdf2-sha256 1 00", "pbkdf2-sha256 999999999 00 00",
                          "plain 1 00 00", "pbkdf2-sha256 1 00 00"}) {
    Provision("unlock", bad);
    EXPECT_EQ(ErrorOf([&] { m_secrets.IsUnlockCode("1234"); }),
              "/etc/orvex/keys/unlock is not understood");
  }
}

TEST_F(SecretsTest, VerifyDeviceData) {
  const SigningKeys keys = NewSigningKeys();
  Provision("device-data.pub", keys.public_file);
  const std::string data("PS_SERIAL=1\n\0x", 14);
  std::string signature = SignDeviceData(data, keys.private_file.Get());
  ASSERT_EQ(signature.size(), 64u);
  EXPECT_TRUE(m_secrets.IsDeviceDataGenuine(data, signature));
  EXPECT_FALSE(m_secrets.IsDeviceDataGenuine(data + "x", signature));
  EXPECT_FALSE(m_secrets.IsDeviceDataGenuine(data, signature.substr(1)));
  signature[3] = static_cast<char>(signature[3] ^ 1);
  EXPECT_FALSE(m_secrets.IsDeviceDataGenuine(data, signature));
}

}  // namespace
