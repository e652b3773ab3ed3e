// What is said of a datagram to who writes a controller.
#include "wire/Explain.h"

#include <gtest/gtest.h>

namespace wire {
namespace {

TEST(Explain, NamesWhatAUnitRefusesAndWhatHasNoEffect) {
  const std::string zero(1, '\0');
  const struct {
    std::string datagram;
    const char* refused;  // part of the reasons; empty: there is none
    const char* remark;   // likewise
  } rows[] = {
      {R"({"msg":"get_state","msg_id":7})" + zero, "", ""},
      {R"({ "msg_id": 4294967295, "x": [1.5, {}], "msg": "set_state", "device_freq": 1 })" + zero,
       "", ""},
      {R"({"msg":"get_state","msg_id":7})", "no 0 byte after the JSON text (30 bytes)", ""},
      {R"({"msg":"get_state","msg_id":7,"x":"\u00fc"})" + zero, "lower-case \\u digits", ""},
      {R"({"msg":"get_state","msg_id":7,"x":"\\u00fc \u00FC"})" + zero, "", ""},
      {"\xEF\xBB\xBF{}" + zero, "byte order mark", ""},
      {R"({"msg":"get_state","msg_id":7,})" + zero, "no JSON: ", ""},
      {"{\"msg\":\"\xFC\"}" + zero, "no JSON: ", ""},
      {zero, "no JSON: ", ""},
      {"[1]" + zero, "no object", ""},
      {R"({"msg":"get_state","msg_id":19.0})" + zero, "\"msg_id\" is 19.0: a point", ""},
      {R"({"msg":"get_state","msg_id":-1})" + zero, "\"msg_id\" is -1; it must be", ""},
      {R"({"msg":"get_state"})" + zero, "\"msg_id\", the message's number, is missing", ""},
      {R"({"msg_id":1})" + zero, "\"msg\", the message's name", ""},
      {"{\"msg\":\"G\\u001B\xC3\xBC\",\"msg_id\":1}" + zero, "no message \"G\\u001b\\u00fc\"", ""},
      {R"({"msg":"set_state","msg_id":1})" + zero, "\"device_freq\" is missing", ""},
      {R"({"msg":"set_inputs","msg_id":1,"inputs":5})" + zero, "must be a list", ""},
      {R"({"msg":"set_fm_freq","msg_id":1,"freq":[1.5]})" + zero, "\"freq\" holds 1.5", ""},
      {R"({"msg":"get_state","msg_id":1,"att":1048577})" + zero, "the most is 1048576", ""},
      {R"({"msg":"get_state","msg_id":1})" + zero + std::string(1432, 'x'), "a unit takes 1432",
       "1432 bytes after"},
      {R"({"msg":"get_state","msg_id":1,"x":0.12345678901234567890})" + zero, "more digits", ""},
      {R"({"msg":"get_state","msg_id":1} more)" + zero, "", "text after the object"},
      {R"({"msg":"get_state","msg_id":1})"
       "\xFC" +
           zero,
       "malformed UTF-8", "text after the object"},
      {R"({"msg":"set_inputs","msg_id":1,"inputs":["localhost:9","off","",7]})" + zero, "",
       "\"localhost:9\" for input 0 is no IPv4 address"},
      {R"({"msg":"set_inputs","msg_id":1,"inputs":["1.2.3.4"]})" + zero, "", "has no port"}};
  const auto holds = [](const std::vector<std::string>& all, const std::string& part) {
    if (part.empty()) return all.empty();
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& one) { return one.find(part) != std::string::npos; });
  };
  for (const auto& row : rows) {
    const Explanation says = Explain(Bytes(row.datagram.begin(), row.datagram.end()));
    EXPECT_TRUE(holds(says.refused, row.refused))
        << row.datagram << ": " << (says.refused.empty() ? "taken" : says.refused.front());
    EXPECT_TRUE(holds(says.remarks, row.remark)) << row.datagram;
  }
}

}  // namespace
}  // namespace wire
