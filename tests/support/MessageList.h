// What the messages of the control protocol are made of, for what is held against it: one row a
// field beyond the envelope.
#pragma once

#include <string>
#include <vector>

#include "control/JsonMsgs.h"
#include "platform/text.h"

struct MessageField {
  std::string message;
  std::string key;
  std::string type;
  bool required;
};

// In the order in which messages are looked up and their fields are read. A message without fields
// of its own has one row, with an empty key and type.
inline std::vector<MessageField> MessageFields() {
  struct TypeName {
    static const char* Of(uint32_t) { return "unsigned"; }
    static const char* Of(const std::wstring&) { return "text"; }
    static const char* Of(const std::vector<int32_t>&) { return "array of signed"; }
    static const char* Of(const std::vector<Network::NetAddr>&) { return "array of addresses"; }
    static const char* Of(const std::vector<Network::InputChange>&) { return "array of changes"; }
  };
  std::vector<MessageField> rows;
  Network::AllMessages::ForEach([&]<typename Msg>() {
    const std::string name = WideToUtf8(Msg::kName);
    const size_t before = rows.size();
    const Msg empty;
    Msg::Fields(empty, [&](const wchar_t* key, const auto& member) {
      const std::string type = TypeName::Of(member);
      rows.push_back({name, WideToUtf8(key), type, type.rfind("array", 0) != 0});
    });
    if (rows.size() == before) rows.push_back({name, "", "", false});
  });
  return rows;
}
