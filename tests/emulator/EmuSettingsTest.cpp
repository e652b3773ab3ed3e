#include "emulator/EmuSettings.h"

#include <gtest/gtest.h>

#include <limits>

#include "emulator/SettingsFile.h"
#include "support/CapturedLog.h"

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

TEST(EmuSettings, DefaultsAreWrittenOutInFull) {
  for (const wchar_t* text : {L"{}", L"{\"units\":[]}", L"{\"units\":[{}]}"}) {
    EmuSettings settings;
    ASSERT_TRUE(settings.FromString(text).IsOk());
    EXPECT_EQ(settings.ToString(), Utf8ToWide(kDefaultUnitFile));
    EXPECT_EQ(settings.units.at(0).BasePort, 8000);
  }
  // Without units there is no such key: an empty array has no text form.
  EXPECT_EQ(EmuSettings().ToString(),
            L"{\"AddrStr\":\"\",\"BasePort\":8000,\"BroadcastPort\":15001}");
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
  EXPECT_EQ(settings.units.at(0).BasePort, 8000);  // computed, whatever the file says
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

  UnitSettings unit{L"QZ820", L"a", 1, 44100, 2, 3.0};
  JSON::Value nothing, written;
  nothing.ItemForWrite(L"a").SetInt(1);
  ASSERT_TRUE(unit.Deserialize(nothing).IsOk() && unit.Serialize(written).IsOk());
  EXPECT_EQ(written.ToWString(),
            L"{\"Mode\":2,\"SampleFreq\":44100,\"Speed\":3.00000,\"UnitId\":\"a\","
            L"\"UnitType\":\"QZ820\"}");
}

TEST(EmuSettings, HandsOutPortsByModel) {
  EmuSettings settings;
  ASSERT_TRUE(settings
                  .FromString(L"{\"BasePort\":9000,\"units\":[{},{\"UnitType\":\"QZ820\"},{},"
                              L"{\"UnitType\":\"qz610\"},{}]}")
                  .IsOk());
  const std::vector<int32_t> ports = {9000, 9006, 9016, 9022, 9024};
  for (size_t i = 0; i < ports.size(); ++i)
    EXPECT_EQ(settings.units.at(i).BasePort, ports[i]);
  EXPECT_EQ(settings.units[3].GetInputCount(), 0);
  ASSERT_TRUE(settings.FromString(L"{\"BasePort\":2147483647,\"units\":[{},{}]}").IsOk());
  EXPECT_EQ(settings.units.at(1).BasePort, std::numeric_limits<int32_t>::min() + 5) << "wraps";
}

// A file with a mistake must cost the user nothing but a clear line: not the process, not the file,
// not half of the settings.
TEST(EmuSettings, BadTextIsRefusedWholeByNameOfFileAndMistake) {
  const struct {
    std::string bytes;
    const wchar_t* words;  // what the failure has to tell
  } table[] = {
      {" \n", L"Parse error: the text is empty"},
      {"{", L"Parse error: key string expected in line 1, column 2:"},
      {"{\"units\":[{}", L"comma or right square bracket expected in line 1, column 13:"},
      {"{\r\n \"BasePort\":many}", L"Parse error: value expected in line 2, column 13:"},
      {"\xEF\xBB\xBF{}", L"in line 1, column 1 (a byte order mark"},
      // One brace too early, and all that follows would be gone with the rewrite.
      {"{\"BasePort\":1},\n\"units\":[{}]}", L"invalid end stream chars in line 1, column 15:"},
      {"{\"AddrStr\":\"\xFF\"}", L"bad conversion"},
      {"{\"units\":[{\"UnitId\":\"a\"}]}\xC3", L"bad conversion"},
      {"[]", L"non-object"},
      {"{\"AddrStr\":\"1.1.1.1\",\"BasePort\":\"8000\"}", L"BasePort: "},
      {"{\"BroadcastPort\":1.0}", L"BroadcastPort: "},
      {"{\"units\":[{},{\"UnitId\":7}]}", L"units[1]: UnitId: "},
      {"{\"units\":[\"QZ610\"]}", L"units[0]: "},
      {"{\"units\":{}}", L"units: "},
      {"{\"units\":[{\"SampleFreq\":2147483648}]}", L"SampleFreq: overflow"},
      {"{\"units\":[{\"Speed\":true}]}", L"Speed: "},
      {std::string(200000, '['), L"Parse error"},
  };
  for (const auto& [bytes, words] : table) {
    SCOPED_TRACE(bytes.substr(0, 60));
    SettingsFile file;
    file.Write(bytes);
    EmuSettings settings;
    settings.AddrStr = L"10.0.0.1";
    settings.units.resize(3);
    const std::wstring before = settings.ToString();
    const std::wstring failure = FailureOf(settings.FromFile(file.Path()));
    EXPECT_NE(failure.find(words), std::wstring::npos) << WideToUtf8(failure);
    EXPECT_NE(failure.find(L"\"" + file.Path() + L"\""), std::wstring::npos);
    EXPECT_EQ(settings.ToString(), before);
    EXPECT_EQ(file.Read(), bytes);
  }
}

TEST(EmuSettings, FailuresOfTheFileItselfAreThoseOfTheFileLayer) {
  SettingsFile file;
  EmuSettings settings;
  EXPECT_NE(FailureOf(settings.FromFile(file.Path())).find(L"open error: file"),
            std::wstring::npos);
  EXPECT_EQ(FailureOf(settings.FromString(L""))
                .find(L" ErrStr=Parse error Method=Network::EmuSettings::FromString "
                      L"File=src\\AudioCardEmu Line="),
            0u);
  std::filesystem::create_directory(file.NativePath());
  EXPECT_NE(FailureOf(settings.FromFile(file.Path())).find(file.Path()), std::wstring::npos);
  EXPECT_NE(FailureOf(settings.ToFile(file.Path())).find(file.Path()), std::wstring::npos);
}

TEST(EmuSettings, FileIsWrittenOnlyWhenItChanges) {
  SettingsFile file;
  EmuSettings settings;
  ASSERT_TRUE(settings.FromString(L"{}").IsOk());
  ASSERT_TRUE(settings.ToFile(file.Path()).IsOk());
  EXPECT_EQ(file.Read(), kDefaultUnitFile);

  const auto longAgo = std::filesystem::last_write_time(file.NativePath()) - std::chrono::hours(1);
  std::filesystem::last_write_time(file.NativePath(), longAgo);
  ASSERT_TRUE(settings.ToFile(file.Path()).IsOk());
  EXPECT_EQ(std::filesystem::last_write_time(file.NativePath()), longAgo);

  std::string padded(5000, ' ');
  file.Write(padded += kDefaultUnitFile);
  ASSERT_TRUE(settings.ToFile(file.Path()).IsOk());
  EXPECT_EQ(file.Read(), kDefaultUnitFile);
  EXPECT_EQ(file.Strays(), 0u);
}

// Some values can be read and have no text that the next start could read as the same. Writing
// another would lose what the user wrote.
TEST(EmuSettings, WhatCouldNotBeReadBackIsNotWritten) {
  for (const char* unit :
       {R"({"Speed":1e999})", R"({"Speed":-1e999})", R"({"Speed":0e999})", R"({"Speed":123456})",
        R"({"Speed":999999.4})", R"({"UnitId":"\uD800"})"}) {
    SettingsFile file;
    const std::string text = std::string("{\"units\":[") + unit + "]}";
    file.Write(text);
    EmuSettings settings;
    ASSERT_TRUE(settings.FromFile(file.Path()).IsOk()) << unit;
    const std::wstring failure = FailureOf(settings.ToFile(file.Path()));
    EXPECT_NE(failure.find(file.Path()), std::wstring::npos) << unit;
    EXPECT_NE(failure.find(L"is left as it is"), std::wstring::npos) << unit;
    EXPECT_EQ(file.Read(), text);
    EXPECT_EQ(Log().Lines(), std::vector<std::wstring>{failure});
    Log().Clear();
  }
}

}  // namespace
}  // namespace Network
