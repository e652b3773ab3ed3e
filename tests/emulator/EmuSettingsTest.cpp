#include "emulator/EmuSettings.h"

#include <gtest/gtest.h>

#include "support/CapturedLog.h"
#include "support/TempDir.h"

namespace Network {
namespace {

const char kDefaultUnitFile[] =
    R"({"AddrStr":"","BasePort":8000,"BroadcastPort":15001,"units":[{"Mode":0,)"
    R"("SampleFreq":48000,"Speed":1.00000,"UnitId":"emulator1","UnitType":"QZ610"}]})";

// What FromString and FromFile failed with, without the duty to report it.
std::wstring FailureOf(const ErrInfo& err) {
  const ErrInfo copy = err;
  const std::wstring text = copy.ToString();
  Log().Allow(text);
  return text;
}

TEST(EmuSettings, TakesEveryKeyAndForgetsOthers) {
  EmuSettings settings;
  ASSERT_TRUE(settings
                  .FromString(L"{\"extra\":[1],\"BroadcastPort\":7,\"AddrStr\":\"10.0.0.1\","
                              L"\"units\":[{\"UnitType\":\"QZ820\",\"UnitId\":\"a\",\"Mode\":-3,"
                              L"\"SampleFreq\":-1,\"Speed\":1.234567,\"BasePort\":1}]}")
                  .IsOk());
  EXPECT_EQ(settings.AddrStr, L"10.0.0.1");
  EXPECT_EQ(settings.units.at(0).SampleFreq, 4294967295u);
  const std::wstring text = settings.ToString();
  EXPECT_EQ(text,
            L"{\"AddrStr\":\"10.0.0.1\",\"BasePort\":8000,\"BroadcastPort\":7,\"units\":["
            L"{\"Mode\":-3,\"SampleFreq\":-1,\"Speed\":1.23457,\"UnitId\":\"a\","
            L"\"UnitType\":\"QZ820\"}]}");
  ASSERT_TRUE(settings.FromString(text).IsOk());
  EXPECT_EQ(settings.ToString(), text) << "stable from the first rewrite on";
}

// Each start takes the file in over the defaults, and a caller may have others.
TEST(EmuSettings, MissingKeysKeepTheirValues) {
  EmuSettings settings;
  const std::wstring text =
      L"{\"AddrStr\":\"10.0.0.1\",\"BasePort\":7,\"BroadcastPort\":8,\"units\":[{}]}";
  ASSERT_TRUE(settings.FromString(text).IsOk());
  const std::wstring before = settings.ToString();
  ASSERT_TRUE(settings.FromString(L"{\"a\":1}").IsOk());
  EXPECT_EQ(settings.ToString(), before);
}

TEST(EmuSettings, HandsOutPortsByModel) {
  EmuSettings settings;
  ASSERT_TRUE(settings
                  .FromString(L"{\"BasePort\":9000,\"units\":[{},{\"UnitType\":\"QZ820\"},"
                              L"{\"UnitType\":\"qz610\"},{}]}")
                  .IsOk());
  const int32_t ports[] = {9000, 9006, 9016, 9018};
  for (size_t i = 0; i < std::size(ports); ++i)
    EXPECT_EQ(settings.units.at(i).BasePort, ports[i]);
}

// A file with a mistake must cost the user nothing but a clear line: not the process, not the file,
// not half of the settings.
TEST(EmuSettings, BadTextIsRefusedWholeByNameOfFileAndMistake) {
  const struct {
    std::string bytes;
    const wchar_t* words;  // what the failure has to say
  } table[] = {
      {" \n", L"Parse error: the text is empty"},
      {"{\r\n \"BasePort\":many}", L"Parse error: value expected in line 2, column 13:"},
      {"\xEF\xBB\xBF{}", L"in line 1, column 1 (a byte order mark"},
      // One brace too early, and all that follows would be gone with the rewrite.
      {"{\"BasePort\":1},\n\"units\":[{}]}", L"invalid end stream chars in line 1, column 15:"},
      {"{\"AddrStr\":\"\xFF\"}", L"bad conversion"},
      {"[]", L"non-object"},
      {"{\"AddrStr\":\"1.1.1.1\",\"BasePort\":\"8000\"}", L"BasePort: "},
      {"{\"units\":[{},{\"UnitId\":7}]}", L"units[1]: UnitId: "},
      {"{\"units\":{}}", L"units: "},
      {"{\"units\":[{\"SampleFreq\":2147483648}]}", L"SampleFreq: overflow"},
      {std::string(200000, '['), L"Parse error"},
  };
  const TempDir dir;
  const std::wstring path = dir.Wide("emu.json");
  for (const auto& [bytes, words] : table) {
    SCOPED_TRACE(bytes.substr(0, 60));
    dir.Write("emu.json", bytes);
    EmuSettings settings;
    settings.AddrStr = L"10.0.0.1";
    settings.units.resize(3);
    const std::wstring before = settings.ToString();
    const std::wstring failure = FailureOf(settings.FromFile(path));
    EXPECT_NE(failure.find(words), std::wstring::npos) << WideToUtf8(failure);
    EXPECT_NE(failure.find(L"\"" + path + L"\""), std::wstring::npos);
    EXPECT_EQ(settings.ToString(), before);
    EXPECT_EQ(dir.Read("emu.json"), bytes);
  }
}

TEST(EmuSettings, FileIsWrittenOnlyWhenItChanges) {
  const TempDir dir;
  const auto file = dir.File("emu.json");
  EmuSettings settings;
  ASSERT_TRUE(settings.FromString(L"{}").IsOk());
  for (const size_t blanks : {0u, 5000u}) {
    dir.Write("emu.json", std::string(blanks, ' ') + kDefaultUnitFile);
    const auto longAgo = std::filesystem::last_write_time(file) - std::chrono::hours(1);
    std::filesystem::last_write_time(file, longAgo);
    ASSERT_TRUE(settings.ToFile(dir.Wide("emu.json")).IsOk());
    EXPECT_EQ(dir.Read("emu.json"), kDefaultUnitFile);
    EXPECT_EQ(std::filesystem::last_write_time(file) == longAgo, blanks == 0);
  }
}

// Some values can be read and have no text that the next start could read as the same. Writing
// another would lose what the user wrote.
TEST(EmuSettings, WhatCouldNotBeReadBackIsNotWritten) {
  for (const char* unit :
       {R"({"Speed":1e999})", R"({"Speed":-1e999})", R"({"Speed":0e999})", R"({"Speed":123456})",
        R"({"Speed":999999.4})", R"({"UnitId":"\uD800"})"}) {
    const TempDir dir;
    const std::wstring path = dir.Wide("emu.json");
    const std::string text = std::string("{\"units\":[") + unit + "]}";
    dir.Write("emu.json", text);
    EmuSettings settings;
    ASSERT_TRUE(settings.FromFile(path).IsOk()) << unit;
    const std::wstring failure = FailureOf(settings.ToFile(path));
    EXPECT_NE(failure.find(path), std::wstring::npos) << unit;
    EXPECT_NE(failure.find(L"is left as it is"), std::wstring::npos) << unit;
    EXPECT_EQ(dir.Read("emu.json"), text);
    EXPECT_EQ(Log().Lines(), std::vector<std::wstring>{failure});
    Log().Clear();
  }
}

}  // namespace
}  // namespace Network
