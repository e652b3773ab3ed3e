// All messages of the control protocol: plain structs whose fields bear the names of their JSON
// keys. What a unit answers to each is its own business (see AudioCardEmu).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/JsonMsg.h"
#include "sockets/NetAddr.h"

namespace Network {

// Acknowledges one message. Never acknowledged itself.
struct JsonMsgAck : JsonMsg {
  JsonMsgAck() : JsonMsg(L"ack") {}
  explicit JsonMsgAck(uint32_t id) : JsonMsg(L"ack"), ack_msg_id(id) {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t ack_msg_id = 0;
};

// One segment of an attachment that is too long for a datagram; the bytes are its attachment.
struct JsonMsgAtt : JsonMsg {
  JsonMsgAtt() : JsonMsg(L"attach") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t leader_id = 0;   // number of the message that the segment belongs to
  uint32_t seg_count = 0;   // segments of that message
  uint32_t seg_number = 0;  // this one, from 0
};

struct JsonMsgDevFind : JsonMsg {
  JsonMsgDevFind() : JsonMsg(L"dev_find") {}
};

struct JsonMsgGetDevInfo : JsonMsg {
  JsonMsgGetDevInfo() : JsonMsg(L"get_dev_info") {}
};

// The description of a unit.
struct JsonMsgDevInfo : JsonMsg {
  JsonMsgDevInfo() : JsonMsg(L"dev_info") {}
  ErrInfo Serialize(JSON::Value& out) const override;
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
};

struct JsonMsgGetState : JsonMsg {
  JsonMsgGetState() : JsonMsg(L"get_state") {}
};

struct JsonMsgSetState : JsonMsg {
  JsonMsgSetState() : JsonMsg(L"set_state") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t device_freq = 0;  // Hz
};

// Decoded, but never sent by a unit of this program.
struct JsonMsgState : JsonMsg {
  JsonMsgState() : JsonMsg(L"state") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t device_freq = 0;  // Hz
  uint32_t input_freq = 0;   // Hz
};

struct JsonMsgGetInputs : JsonMsg {
  JsonMsgGetInputs() : JsonMsg(L"get_inputs") {}
};

// One element of "set_inputs": "" leaves the input unchanged, "off" is set with an undefined
// address.
struct InputChange {
  bool set = false;
  NetAddr addr;
};

struct JsonMsgSetInputs : JsonMsg {
  JsonMsgSetInputs() : JsonMsg(L"set_inputs") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<InputChange> inputs;
};

// Where each input's stream goes; undefined: off.
struct JsonMsgInputs : JsonMsg {
  JsonMsgInputs() : JsonMsg(L"inputs") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<NetAddr> inputs;
};

struct JsonMsgGetFmFreq : JsonMsg {
  JsonMsgGetFmFreq() : JsonMsg(L"get_fm_freq") {}
};

struct JsonMsgSetFmFreq : JsonMsg {
  JsonMsgSetFmFreq() : JsonMsg(L"set_fm_freq") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<int32_t> freq;  // one for each tuner; 0 leaves it as it is
};

struct JsonMsgFmFreq : JsonMsg {
  JsonMsgFmFreq() : JsonMsg(L"fm_freq") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<int32_t> freq;  // one for each tuner
};

struct JsonMsgGetFmQuality : JsonMsg {
  JsonMsgGetFmQuality() : JsonMsg(L"get_fm_quality") {}
};

// One element for each tuner.
struct JsonMsgFmQuality : JsonMsg {
  JsonMsgFmQuality() : JsonMsg(L"fm_quality") {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  std::vector<int32_t> rssi;
  std::vector<int32_t> snr;
  std::vector<int32_t> multipath;
  std::vector<int32_t> pilot;
};

// The answer to a request that failed.
struct JsonMsgError : JsonMsg {
  JsonMsgError() : JsonMsg(L"error") {}
  JsonMsgError(uint32_t errCode, const std::wstring& text, uint32_t errMsgId)
      : JsonMsg(L"error"), code(errCode), txt(text), err_msg_id(errMsgId) {}
  ErrInfo Serialize(JSON::Value& out) const override;
  ErrInfo Deserialize(const JSON::Value& in) override;

  uint32_t code = 0;
  std::wstring txt;
  uint32_t err_msg_id = 0;  // number of the request
};

}  // namespace Network
