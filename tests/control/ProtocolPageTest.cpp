// The table of messages in docs/protocol.md against the list that the program reads and writes by.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "support/MessageList.h"

namespace {

// As the page says it: an array of numbers, or of texts.
std::string OnThePage(const std::string& type) {
  if (type == "array of signed") return "list of signed";
  return type.rfind("array", 0) == 0 ? "list of text" : type;
}

TEST(ProtocolPage, ListsEveryMessageWithItsKeysInTheirOrder) {
  // How each row begins: | `ack` | `ack_msg_id` unsigned |
  std::vector<std::string> rows;
  std::string last;
  for (const MessageField& field : MessageFields()) {
    if (field.message != last) rows.push_back("\n| `" + field.message + "` | ");
    if (!field.key.empty()) {
      rows.back() += (field.message == last ? ", `" : "`") + field.key + "` " +
                     OnThePage(field.type) + (field.required ? "" : ", optional");
    }
    last = field.message;
  }

  std::ifstream file(QZ_DOCS "/protocol.md", std::ios::binary);
  const std::string page{std::istreambuf_iterator<char>(file), {}};
  size_t place = 0;
  for (const std::string& row : rows) {
    const std::string whole = row + (row.back() == ' ' ? "|" : " |");
    place = page.find(whole, place);
    ASSERT_NE(place, std::string::npos) << "no row, or not in this place:" << whole;
  }
}

}  // namespace
