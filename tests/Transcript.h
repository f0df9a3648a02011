// Transcripts: files of commands, each behind "> ", with what is said of it on the lines below.
// Empty lines and those that begin with '#' are for the reader.
#pragma once

#include "tests/Testing.h"

namespace TestSupport {

// Plays the commands of a transcript, and expects that as much is said of each as stands there.
// When a change is meant to say something else, the failure names a file to take its place.
inline void expectTranscript(const std::filesystem::path& file,
                             const std::function<std::string(const std::string&)>& play) {
  std::ifstream in{file};
  std::string expected;
  std::string said;
  for (std::string line; std::getline(in, line);) {
    const bool isCommand = line.starts_with("> ");
    expected += line + "\n";
    said += isCommand || line.empty() || line.starts_with('#') ? line + "\n" : "";
    said += isCommand ? play(line.substr(2)) : "";
  }
  EXPECT_NE(expected, "") << "no transcript " << file;
  if (said != expected) {
    const std::string now = testing::TempDir() + "ostra-transcript-" + file.filename().string();
    std::ofstream{now} << said;
    EXPECT_EQ(said, expected) << "what is said now is in " << now;
  }
}

}  // namespace TestSupport
