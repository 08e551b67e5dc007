// The real player on a terminal, in a device root of its own.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/apps/program_run.h"

inline constexpr char kPrompt[] = "Orvex(unsupervised)> ";

class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() {
    ::signal(SIGPIPE, SIG_IGN);
    std::string folder = testing::TempDir() + "console-XXXXXX";
    m_root = ::mkdtemp(folder.data());
    EXPECT_EQ(0, std::system((DEVICE_ROOT_TOOL " '" + m_root.string() + "'").c_str()));
  }
  ~ConsoleTest() override { std::filesystem::remove_all(m_root); }

  void Start() {
    player.emplace(ORVEX_PROGRAM, std::vector<std::string>{}, m_root, true,
                   std::vector<std::string>{"ORVEX_ROOT=" + m_root.string()});
    player->Expect(kPrompt);
  }
  // What a command prints, up to the next prompt.
  std::string Ask(const std::string& command) {
    const size_t before = player->out.size();
    player->Type(command + "\r");
    player->Expect("\nOrvex(unsupervised)> ");
    std::string text = player->out.substr(before);
    std::erase(text, '\r');
    text.erase(0, text.find('\n') + 1);
    return text.substr(0, text.rfind(kPrompt));
  }
  int Exit() {
    player->Type("exit\r");
    return player->Finish();
  }
  void Write(const std::string& path, const std::string& text) {
    std::ofstream(m_root.string() + path, std::ios::binary) << text;
  }

  std::filesystem::path m_root;
  std::optional<ProgramRun> player;
};
