// The README says what the models are; the table is what they are.
#include "emulator/Models.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "platform/text.h"

namespace Network {
namespace {

std::string Streams(int32_t count) {
  return count == 0 ? "none" : std::to_string(count) + " stereo";
}

TEST(Models, AreThoseOfTheReadme) {
  std::ifstream file(QZ_README);
  const std::string readme{std::istreambuf_iterator<char>(file), {}};
  for (const Model& model : kModels) {
    const std::string name = WideToUtf8(std::wstring(model.Name));
    const std::string row = "\n| " + name + " | " + Streams(model.Inputs) + " | " +
                            Streams(model.Outputs) + " | " +
                            (model.Tuners > 0 ? "an FM tuner at each input |" : "loops");
    EXPECT_NE(readme.find(row), std::string::npos) << row;
    EXPECT_TRUE(model.Tuners == 0 || model.Tuners == model.Inputs);
    const std::string ports = std::to_string(PortCount(model));
    EXPECT_TRUE(readme.find(ports + "\nfor a " + name) != std::string::npos ||
                readme.find(ports + " for a " + name) != std::string::npos);
    EXPECT_EQ(&FindModel(model.Name), &model);
  }
  EXPECT_EQ(&FindModel(L"qz610"), &kUnknownModel);
}

}  // namespace
}  // namespace Network
