// All messages of the control protocol: plain structs whose fields bear the names of their JSON
// keys. What a unit answers to each is its own business (see AudioCardEmu).
//
// `Fields` of a message hands each of its fields to `field` as key and member, in the order in
// which they are read, so that the first key at fault is the one that is reported. A number or a
// text is required; an array may be missing, as an empty one isn't written. A message without
// `Fields` has none. Reading, writing and what the tests fill in all go by this list.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/JsonMsg.h"
#include "sockets/NetAddr.h"

namespace Network {

// Acknowledges one message. Never acknowledged itself.
struct JsonMsgAck : JsonMsg {
  static constexpr wchar_t kName[] = L"ack";
  JsonMsgAck() : JsonMsg(kName) {}
  explicit JsonMsgAck(uint32_t id) : JsonMsg(kName), ack_msg_id(id) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t ack_msg_id = 0;

  static void Fields(auto& self, auto&& field) { field(L"ack_msg_id", self.ack_msg_id); }
};

// One segment of an attachment that is too long for a datagram; the bytes are its attachment.
struct JsonMsgAtt : JsonMsg {
  static constexpr wchar_t kName[] = L"attach";
  JsonMsgAtt() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t leader_id = 0;   // number of the message that the segment belongs to
  uint32_t seg_count = 0;   // segments of that message
  uint32_t seg_number = 0;  // this one, from 0

  static void Fields(auto& self, auto&& field) {
    field(L"leader_id", self.leader_id);
    field(L"seg_count", self.seg_count);
    field(L"seg_number", self.seg_number);
  }
};

struct JsonMsgDevFind : JsonMsg {
  static constexpr wchar_t kName[] = L"dev_find";
  JsonMsgDevFind() : JsonMsg(kName) {}
};

struct JsonMsgGetDevInfo : JsonMsg {
  static constexpr wchar_t kName[] = L"get_dev_info";
  JsonMsgGetDevInfo() : JsonMsg(kName) {}
};

// The description of a unit.
struct JsonMsgDevInfo : JsonMsg {
  static constexpr wchar_t kName[] = L"dev_info";
  JsonMsgDevInfo() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::wstring unit_id;
  std::wstring unit_type;
  uint32_t hardware = 1;
  uint32_t firmware = 1;
  uint32_t software = 1;
  uint32_t audio_protocol = 1;
  uint32_t control_protocol = 1;
  uint32_t rtp_port = 0;  // where output 0 receives; output i at rtp_port + 2i
  uint32_t inputs = 0;    // a number here, an array in the inputs messages
  uint32_t outputs = 0;

  static void Fields(auto& self, auto&& field) {
    field(L"unit_id", self.unit_id);
    field(L"unit_type", self.unit_type);
    field(L"hardware", self.hardware);
    field(L"firmware", self.firmware);
    field(L"software", self.software);
    field(L"audio_protocol", self.audio_protocol);
    field(L"control_protocol", self.control_protocol);
    field(L"rtp_port", self.rtp_port);
    field(L"inputs", self.inputs);
    field(L"outputs", self.outputs);
  }
};

struct JsonMsgGetState : JsonMsg {
  static constexpr wchar_t kName[] = L"get_state";
  JsonMsgGetState() : JsonMsg(kName) {}
};

struct JsonMsgSetState : JsonMsg {
  static constexpr wchar_t kName[] = L"set_state";
  JsonMsgSetState() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t device_freq = 0;  // Hz

  static void Fields(auto& self, auto&& field) { field(L"device_freq", self.device_freq); }
};

// Decoded, but never sent by a unit of this program.
struct JsonMsgState : JsonMsg {
  static constexpr wchar_t kName[] = L"state";
  JsonMsgState() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t device_freq = 0;  // Hz
  uint32_t input_freq = 0;   // Hz

  static void Fields(auto& self, auto&& field) {
    field(L"device_freq", self.device_freq);
    field(L"input_freq", self.input_freq);
  }
};

struct JsonMsgGetInputs : JsonMsg {
  static constexpr wchar_t kName[] = L"get_inputs";
  JsonMsgGetInputs() : JsonMsg(kName) {}
};

// One element of "set_inputs": "" leaves the input unchanged, "off" is set with an undefined
// address.
struct InputChange {
  bool set = false;
  NetAddr addr;
};

struct JsonMsgSetInputs : JsonMsg {
  static constexpr wchar_t kName[] = L"set_inputs";
  JsonMsgSetInputs() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<InputChange> inputs;

  static void Fields(auto& self, auto&& field) { field(L"inputs", self.inputs); }
};

// Where each input's stream goes; undefined: off.
struct JsonMsgInputs : JsonMsg {
  static constexpr wchar_t kName[] = L"inputs";
  JsonMsgInputs() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<NetAddr> inputs;

  static void Fields(auto& self, auto&& field) { field(L"inputs", self.inputs); }
};

struct JsonMsgGetFmFreq : JsonMsg {
  static constexpr wchar_t kName[] = L"get_fm_freq";
  JsonMsgGetFmFreq() : JsonMsg(kName) {}
};

struct JsonMsgSetFmFreq : JsonMsg {
  static constexpr wchar_t kName[] = L"set_fm_freq";
  JsonMsgSetFmFreq() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<int32_t> freq;  // one for each tuner; 0 leaves it as it is

  static void Fields(auto& self, auto&& field) { field(L"freq", self.freq); }
};

struct JsonMsgFmFreq : JsonMsg {
  static constexpr wchar_t kName[] = L"fm_freq";
  JsonMsgFmFreq() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<int32_t> freq;  // one for each tuner

  static void Fields(auto& self, auto&& field) { field(L"freq", self.freq); }
};

struct JsonMsgGetFmQuality : JsonMsg {
  static constexpr wchar_t kName[] = L"get_fm_quality";
  JsonMsgGetFmQuality() : JsonMsg(kName) {}
};

// One element for each tuner.
struct JsonMsgFmQuality : JsonMsg {
  static constexpr wchar_t kName[] = L"fm_quality";
  JsonMsgFmQuality() : JsonMsg(kName) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<int32_t> rssi;
  std::vector<int32_t> snr;
  std::vector<int32_t> multipath;
  std::vector<int32_t> pilot;

  static void Fields(auto& self, auto&& field) {
    field(L"rssi", self.rssi);
    field(L"snr", self.snr);
    field(L"multipath", self.multipath);
    field(L"pilot", self.pilot);
  }
};

// The answer to a request that failed.
struct JsonMsgError : JsonMsg {
  static constexpr wchar_t kName[] = L"error";
  JsonMsgError() : JsonMsg(kName) {}
  JsonMsgError(uint32_t errCode, const std::wstring& text, uint32_t errMsgId)
      : JsonMsg(kName), code(errCode), txt(text), err_msg_id(errMsgId) {}
  ErrInfo Serialize(JSON::Value& out) override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t code = 0;
  std::wstring txt;
  uint32_t err_msg_id = 0;  // number of the request

  static void Fields(auto& self, auto&& field) {
    field(L"code", self.code);
    field(L"txt", self.txt);
    field(L"err_msg_id", self.err_msg_id);
  }
};

// A list of message types, for code that goes through all of them.
template <typename... Msg>
struct MessageTypes {
  // Calls `visit.operator()<Msg>()` for each.
  static void ForEach(auto&& visit) { (visit.template operator()<Msg>(), ...); }
};

// In the order in which a received name is compared.
using AllMessages =
    MessageTypes<JsonMsgAck, JsonMsgAtt, JsonMsgDevFind, JsonMsgGetDevInfo, JsonMsgDevInfo,
                 JsonMsgGetState, JsonMsgSetState, JsonMsgState, JsonMsgGetInputs, JsonMsgSetInputs,
                 JsonMsgInputs, JsonMsgGetFmFreq, JsonMsgSetFmFreq, JsonMsgFmFreq,
                 JsonMsgGetFmQuality, JsonMsgFmQuality, JsonMsgError>;

}  // namespace Network
