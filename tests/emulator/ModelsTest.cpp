// The README says what the models are; the table is what they are.
#include "emulator/Models.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform/text.h"

namespace Network {
namespace {

std::string Streams(int32_t count) {
  return count == 0 ? "none" : std::to_string(count) + " stereo";
}

// How often `part` stands in `text`.
size_t Count(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

TEST(Models, AreThoseOfTheReadme) {
  std::ifstream file(QZ_README);
  std::stringstream content;
  content << file.rdbuf();
  const std::string readme = content.str();

  EXPECT_EQ(Count(readme, "\n| QZ"), std::size(kModels)) << "a row a model";
  for (const Model& model : kModels) {
    const std::string name = WideToUtf8(std::wstring(model.Name));
    const std::string row = "\n| " + name + " | " + Streams(model.Inputs) + " | " +
                            Streams(model.Outputs) + " | " +
                            (model.Tuners > 0 ? "an FM tuner at each input |" : "loops");
    EXPECT_EQ(Count(readme, row), 1u) << row;
    EXPECT_TRUE(model.Tuners == 0 || model.Tuners == model.Inputs);
    EXPECT_EQ(Count(readme, std::to_string(PortCount(model)) + "\nfor a " + name) +
                  Count(readme, std::to_string(PortCount(model)) + " for a " + name),
              1u);
    EXPECT_EQ(&FindModel(model.Name), &model);
  }
  EXPECT_EQ(&FindModel(L"qz610"), &kUnknownModel);
}

}  // namespace
}  // namespace Network
