#include "control/JsonMsgs.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\JsonMsg";

// An empty array writes no key: the key comes with its first element.
void WriteInts(JSON::Value& out, const wchar_t* key, const std::vector<int32_t>& values) {
  for (size_t i = 0; i < values.size(); ++i)
    out.ItemForWrite(key).AtForWrite(i).SetInt(values[i]);
}

void ReadInts(const JSON::Value& in, const wchar_t* key, std::vector<int32_t>& values) {
  values.clear();
  const JSON::Value* array = in.Find(key);
  if (!array) return;
  for (uint64_t i = 0; i < array->Size(); ++i)
    values.push_back(array->At(i).AsInt());
}

// The text of an array element; empty for an element that isn't a string, which keeps the places
// of the others.
std::wstring TextAt(const JSON::Value& array, uint64_t index) {
  const JSON::Value& element = array.At(index);
  return element.GetType() == JSON::String ? element.AsWString() : std::wstring();
}

constexpr wchar_t kOff[] = L"off";

}  // namespace

ErrInfo JsonMsgAck::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  out.ItemForWrite(L"ack_msg_id").SetUInt(ack_msg_id);
  return ERR_HERE("Network::JsonMsgAck::Serialize");
}

ErrInfo JsonMsgAck::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  ack_msg_id = in.Item(L"ack_msg_id").AsUInt();
  return ERR_HERE("Network::JsonMsgAck::Deserialize");
}

ErrInfo JsonMsgAtt::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  out.ItemForWrite(L"leader_id").SetUInt(leader_id);
  out.ItemForWrite(L"seg_count").SetUInt(seg_count);
  out.ItemForWrite(L"seg_number").SetUInt(seg_number);
  return ERR_HERE("Network::JsonMsgAtt::Serialize");
}

ErrInfo JsonMsgAtt::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  leader_id = in.Item(L"leader_id").AsUInt();
  seg_count = in.Item(L"seg_count").AsUInt();
  seg_number = in.Item(L"seg_number").AsUInt();
  return ERR_HERE("Network::JsonMsgAtt::Deserialize");
}

ErrInfo JsonMsgDevInfo::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  out.ItemForWrite(L"unit_id").SetString(unit_id);
  out.ItemForWrite(L"unit_type").SetString(unit_type);
  out.ItemForWrite(L"hardware").SetUInt(hardware);
  out.ItemForWrite(L"firmware").SetUInt(firmware);
  out.ItemForWrite(L"software").SetUInt(software);
  out.ItemForWrite(L"audio_protocol").SetUInt(audio_protocol);
  out.ItemForWrite(L"control_protocol").SetUInt(control_protocol);
  out.ItemForWrite(L"rtp_port").SetUInt(rtp_port);
  out.ItemForWrite(L"inputs").SetUInt(inputs);
  out.ItemForWrite(L"outputs").SetUInt(outputs);
  return ERR_HERE("Network::JsonMsgDevInfo::Serialize");
}

ErrInfo JsonMsgDevInfo::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  unit_id = in.Item(L"unit_id").AsWString();
  unit_type = in.Item(L"unit_type").AsWString();
  hardware = in.Item(L"hardware").AsUInt();
  firmware = in.Item(L"firmware").AsUInt();
  software = in.Item(L"software").AsUInt();
  audio_protocol = in.Item(L"audio_protocol").AsUInt();
  control_protocol = in.Item(L"control_protocol").AsUInt();
  rtp_port = in.Item(L"rtp_port").AsUInt();
  inputs = in.Item(L"inputs").AsUInt();
  outputs = in.Item(L"outputs").AsUInt();
  return ERR_HERE("Network::JsonMsgDevInfo::Deserialize");
}

ErrInfo JsonMsgSetState::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  out.ItemForWrite(L"device_freq").SetUInt(device_freq);
  return ERR_HERE("Network::JsonMsgSetState::Serialize");
}

ErrInfo JsonMsgSetState::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  device_freq = in.Item(L"device_freq").AsUInt();
  return ERR_HERE("Network::JsonMsgSetState::Deserialize");
}

ErrInfo JsonMsgState::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  out.ItemForWrite(L"device_freq").SetUInt(device_freq);
  out.ItemForWrite(L"input_freq").SetUInt(input_freq);
  return ERR_HERE("Network::JsonMsgState::Serialize");
}

ErrInfo JsonMsgState::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  device_freq = in.Item(L"device_freq").AsUInt();
  input_freq = in.Item(L"input_freq").AsUInt();
  return ERR_HERE("Network::JsonMsgState::Deserialize");
}

ErrInfo JsonMsgSetInputs::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  for (size_t i = 0; i < inputs.size(); ++i) {
    const InputChange& input = inputs[i];
    std::wstring text;
    if (input.set) text = input.addr.IsDefined() ? input.addr.ToText() : kOff;
    out.ItemForWrite(L"inputs").AtForWrite(i).SetString(text);
  }
  return ERR_HERE("Network::JsonMsgSetInputs::Serialize");
}

ErrInfo JsonMsgSetInputs::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  inputs.clear();
  const JSON::Value* array = in.Find(L"inputs");
  for (uint64_t i = 0; array && i < array->Size(); ++i) {
    const std::wstring text = TextAt(*array, i);
    InputChange input;
    input.set = !text.empty();
    // A text that is no address switches the input off, as "off" does.
    if (input.set && text != kOff) input.addr.SetFromText(text);
    inputs.push_back(input);
  }
  return ERR_HERE("Network::JsonMsgSetInputs::Deserialize");
}

ErrInfo JsonMsgInputs::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  for (size_t i = 0; i < inputs.size(); ++i) {
    const std::wstring text = inputs[i].IsDefined() ? inputs[i].ToText() : std::wstring();
    out.ItemForWrite(L"inputs").AtForWrite(i).SetString(text);
  }
  return ERR_HERE("Network::JsonMsgInputs::Serialize");
}

ErrInfo JsonMsgInputs::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  inputs.clear();
  const JSON::Value* array = in.Find(L"inputs");
  for (uint64_t i = 0; array && i < array->Size(); ++i) {
    NetAddr addr;
    addr.SetFromText(TextAt(*array, i));
    inputs.push_back(addr);
  }
  return ERR_HERE("Network::JsonMsgInputs::Deserialize");
}

ErrInfo JsonMsgSetFmFreq::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  WriteInts(out, L"freq", freq);
  return ERR_HERE("Network::JsonMsgSetFmFreq::Serialize");
}

ErrInfo JsonMsgSetFmFreq::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  ReadInts(in, L"freq", freq);
  return ERR_HERE("Network::JsonMsgSetFmFreq::Deserialize");
}

ErrInfo JsonMsgFmFreq::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  WriteInts(out, L"freq", freq);
  return ERR_HERE("Network::JsonMsgFmFreq::Serialize");
}

ErrInfo JsonMsgFmFreq::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  ReadInts(in, L"freq", freq);
  return ERR_HERE("Network::JsonMsgFmFreq::Deserialize");
}

ErrInfo JsonMsgFmQuality::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  WriteInts(out, L"rssi", rssi);
  WriteInts(out, L"snr", snr);
  WriteInts(out, L"multipath", multipath);
  WriteInts(out, L"pilot", pilot);
  return ERR_HERE("Network::JsonMsgFmQuality::Serialize");
}

ErrInfo JsonMsgFmQuality::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  ReadInts(in, L"rssi", rssi);
  ReadInts(in, L"snr", snr);
  ReadInts(in, L"multipath", multipath);
  ReadInts(in, L"pilot", pilot);
  return ERR_HERE("Network::JsonMsgFmQuality::Deserialize");
}

ErrInfo JsonMsgError::Serialize(JSON::Value& out) const {
  ErrInfo err = JsonMsg::Serialize(out);
  if (!err.IsOk()) return err;
  out.ItemForWrite(L"code").SetUInt(code);
  out.ItemForWrite(L"txt").SetString(txt);
  out.ItemForWrite(L"err_msg_id").SetUInt(err_msg_id);
  return ERR_HERE("Network::JsonMsgError::Serialize");
}

ErrInfo JsonMsgError::Deserialize(const JSON::Value& in) {
  ErrInfo err = JsonMsg::Deserialize(in);
  if (!err.IsOk()) return err;
  code = in.Item(L"code").AsUInt();
  txt = in.Item(L"txt").AsWString();
  err_msg_id = in.Item(L"err_msg_id").AsUInt();
  return ERR_HERE("Network::JsonMsgError::Deserialize");
}

}  // namespace Network
