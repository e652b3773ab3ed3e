// What a unit does and answers when a controller asks, request by request.
#include <gtest/gtest.h>

#include "emulator/Doubles.h"
#include "support/CapturedLog.h"

namespace Network {
namespace {

using Story = std::vector<std::string>;

class UnitControlTest : public testing::Test {
 protected:
  void Make(const std::wstring& type) {
    settings_.AddrStr = L"127.0.0.5";
    UnitSettings unit;
    unit.UnitType = type;
    unit.UnitId = L"u";
    unit_ = std::make_unique<AudioCardEmu>(nullptr, bench_.UnitParts());
    ASSERT_TRUE(unit_->Init(settings_, unit).IsOk());
    ASSERT_TRUE(unit_->Start().IsOk());
    bench_.TakeStory();
  }

  void Ask(const std::shared_ptr<JsonMsg>& request) {
    bench_.connect->Deliver(request, controller_);
  }

  void SetInputs(std::vector<std::wstring> texts) {
    auto request = std::make_shared<JsonMsgSetInputs>();
    for (const std::wstring& text : texts) {
      auto& input = request->inputs.emplace_back();
      input.set = !text.empty();
      if (text != L"off") input.addr.SetFromText(text);
    }
    Ask(request);
  }

  void SetState(uint32_t freq) {
    auto request = std::make_shared<JsonMsgSetState>();
    request->device_freq = freq;
    Ask(request);
  }

  std::shared_ptr<JsonMsgSetFmFreq> SetFmFreq(std::vector<int32_t> freq) {
    auto request = std::make_shared<JsonMsgSetFmFreq>();
    request->freq = std::move(freq);
    Ask(request);
    return request;
  }

  // The one answer since the last call, which must be of this type and go to the controller.
  template <typename Message>
  std::shared_ptr<Message> TakeAnswer() {
    const std::vector<Answer> answers = bench_.TakeAnswers();
    EXPECT_EQ(answers.size(), 1u);
    if (answers.size() != 1) return std::make_shared<Message>();
    EXPECT_EQ(answers[0].to, controller_);
    auto message = std::dynamic_pointer_cast<Message>(answers[0].msg);
    EXPECT_TRUE(message) << "another type of answer";
    return message ? message : std::make_shared<Message>();
  }

  void ExpectNoAnswer() { EXPECT_TRUE(bench_.TakeAnswers().empty()); }

  std::vector<std::wstring> InputsNow() {
    Ask(std::make_shared<JsonMsgGetInputs>());
    std::vector<std::wstring> texts;
    const auto answer = TakeAnswer<JsonMsgInputs>();
    for (const NetAddr& addr : answer->inputs) {
      texts.push_back(addr.IsDefined() ? addr.ToText() : L"");
    }
    bench_.TakeStory();
    return texts;
  }

  std::vector<int32_t> FmFreqNow() {
    Ask(std::make_shared<JsonMsgGetFmFreq>());
    return TakeAnswer<JsonMsgFmFreq>()->freq;
  }

  Bench bench_;
  EmuSettings settings_;
  std::unique_ptr<AudioCardEmu> unit_;
  const NetAddr controller_ = Addr(L"127.0.0.9:7000");
};

using Texts = std::vector<std::wstring>;

TEST_F(UnitControlTest, DescribesItself) {
  struct Row {
    std::wstring type;
    uint32_t inputs, outputs;
  };
  for (const Row& row : {Row{L"QZ610", 1, 1}, Row{L"QZ820", 4, 0}, Row{L"QZ999", 0, 0}}) {
    Make(row.type);
    Ask(std::make_shared<JsonMsgGetDevInfo>());
    const auto info = TakeAnswer<JsonMsgDevInfo>();
    EXPECT_EQ(info->unit_id, L"u");
    EXPECT_EQ(info->unit_type, row.type);
    EXPECT_EQ(info->rtp_port, 8002u);
    EXPECT_EQ(info->inputs, row.inputs);
    EXPECT_EQ(info->outputs, row.outputs);
    for (const uint32_t version : {info->hardware, info->firmware, info->software,
                                   info->audio_protocol, info->control_protocol}) {
      EXPECT_EQ(version, 1u);
    }

    unit_->OnBroadcastMsg(std::make_shared<JsonMsgDevFind>(), controller_);
    EXPECT_EQ(TakeAnswer<JsonMsgDevInfo>()->unit_type, row.type);
  }
}

TEST_F(UnitControlTest, IgnoresWhatIsNoRequestToIt) {
  Make(L"QZ610");
  for (const auto& msg : std::initializer_list<std::shared_ptr<JsonMsg>>{
           std::make_shared<JsonMsgGetState>(), std::make_shared<JsonMsgDevFind>(),
           std::make_shared<JsonMsgDevInfo>(), std::make_shared<JsonMsgInputs>(),
           std::make_shared<JsonMsgError>()}) {
    Ask(msg);
  }
  unit_->OnBroadcastMsg(std::make_shared<JsonMsgGetDevInfo>(), controller_);
  // From another manager than its own connection.
  unit_->OnMsgReceived(nullptr, std::make_shared<JsonMsgGetDevInfo>(), controller_);
  unit_->OnMsgSent(bench_.connect, std::make_shared<JsonMsgDevInfo>());
  ExpectNoAnswer();
  EXPECT_EQ(bench_.TakeStory(), Story{});
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(UnitControlTest, FailuresEndInTheLog) {
  Make(L"QZ610");
  unit_->OnError(bench_.connect, ErrInfo("A::B", "tests\\Here", 1).SetText(L"no ack"));
  EXPECT_NE(Log().TryTake(L"ErrStr=no ack"), L"");
  bench_.failing = "u.JsonUdpConnect Send";
  Ask(std::make_shared<JsonMsgGetInputs>());
  EXPECT_NE(Log().TryTake(L"ErrStr=Send failed"), L"");
}

TEST_F(UnitControlTest, SetsTheInputsThatAreNamed) {
  Make(L"QZ820");
  EXPECT_EQ(InputsNow(), (Texts{L"", L"", L"", L""}));
  SetInputs({L"10.0.0.1:5000", L"", L"10.0.0.3", L""});
  EXPECT_EQ(bench_.TakeStory(), (Story{"u.RtpManager SetSendChanAddr 0 10.0.0.1:5000",
                                       "u.RtpManager SetSendChanAddr 2 10.0.0.3"}));
  EXPECT_EQ(InputsNow(), (Texts{L"10.0.0.1:5000", L"", L"10.0.0.3", L""}));

  SetInputs({L"off", L"10.0.0.2:6000", L"", L""});
  EXPECT_EQ(bench_.TakeStory(), (Story{"u.RtpManager SetSendChanAddr 0 255.255.255.255",
                                       "u.RtpManager SetSendChanAddr 1 10.0.0.2:6000"}));
  EXPECT_EQ(InputsNow(), (Texts{L"", L"10.0.0.2:6000", L"10.0.0.3", L""}));
  ExpectNoAnswer();
}

TEST_F(UnitControlTest, WrongCountOfInputsChangesNothing) {
  Make(L"QZ610");
  SetInputs({L"10.0.0.1:5000"});
  bench_.TakeStory();
  for (const Texts& wrong : {Texts{L"off", L"off", L"off"}, Texts{}}) {
    SetInputs(wrong);
    EXPECT_EQ(Log().TryTake(L"ERROR"), L"ERROR: Incorrect inputs count");
    EXPECT_EQ(bench_.TakeStory(), Story{});
    EXPECT_EQ(InputsNow(), Texts{L"10.0.0.1:5000"});
  }
  Make(L"QZ999");
  SetInputs({});
  ExpectNoAnswer();
  EXPECT_EQ(Log().TryTake(L"ERROR"), L"");
}

TEST_F(UnitControlTest, ChangesTheFrequencyAndForgetsTheInputs) {
  Make(L"QZ610");
  SetInputs({L"10.0.0.1:5000"});
  bench_.TakeStory();

  SetState(48000);
  EXPECT_EQ(bench_.TakeStory(), Story{});
  EXPECT_EQ(InputsNow(), Texts{L"10.0.0.1:5000"});

  SetState(44100);
  EXPECT_EQ(bench_.TakeStory(),
            (Story{"u.SyncManager Stop", "u.RtpManager Stop", "u.SyncManager SetSyncFreq 44100 192",
                   "u.SyncManager SetSpeed", "u.RtpManager Init", "u.RtpManager Start",
                   "u.SyncManager Start"}));
  EXPECT_EQ(InputsNow(), Texts{L""});
  EXPECT_EQ(bench_.rtp->info.SendChans.at(0).PayloadType, 101u);
  EXPECT_EQ(bench_.rtp->info.SampleFreq, 44100u);
  SetState(48000);
  EXPECT_EQ(bench_.rtp->info.SendChans.at(0).PayloadType, 100u);
  ExpectNoAnswer();
}

TEST_F(UnitControlTest, UnsupportedFrequencyOnlyInterruptsTheTicks) {
  Make(L"QZ610");
  SetInputs({L"10.0.0.1:5000"});
  bench_.TakeStory();
  SetState(96000);
  EXPECT_EQ(bench_.TakeStory(), (Story{"u.SyncManager Stop", "u.RtpManager Stop",
                                       "u.RtpManager Start", "u.SyncManager Start"}));
  EXPECT_NE(Log().TryTake(L"Sample freq 96000 is not supported"), L"");
  EXPECT_EQ(Log().Lines().size(), 1u);
  EXPECT_EQ(InputsNow(), Texts{L"10.0.0.1:5000"});
  EXPECT_EQ(bench_.sync->GetSyncFreq(), 48000u);
  ExpectNoAnswer();
}

TEST_F(UnitControlTest, StoppedUnitStaysSilentWhateverIsAsked) {
  Make(L"QZ610");
  ASSERT_TRUE(unit_->Stop().IsOk());
  bench_.TakeStory();
  SetState(44100);
  EXPECT_EQ(bench_.TakeStory(), Story{});
  Ask(std::make_shared<JsonMsgGetDevInfo>());  // the control side lives on
  TakeAnswer<JsonMsgDevInfo>();
}

TEST_F(UnitControlTest, KeepsTheFrequenciesOfItsTuners) {
  Make(L"QZ820");
  EXPECT_EQ(FmFreqNow(), (std::vector<int32_t>{100500, 100500, 100500, 100500}));
  SetFmFreq({0, 0, 0, 90000});
  EXPECT_EQ(FmFreqNow(), (std::vector<int32_t>{100500, 100500, 100500, 90000}));
  SetFmFreq({-5, 0, 98000, 0});
  EXPECT_EQ(FmFreqNow(), (std::vector<int32_t>{-5, 100500, 98000, 90000}));

  const auto request = SetFmFreq({90000});
  const auto error = TakeAnswer<JsonMsgError>();
  EXPECT_EQ(error->code, 2u);
  EXPECT_EQ(error->txt, L"Number of channels mismatch");
  EXPECT_EQ(error->err_msg_id, request->msg_id);
  EXPECT_NE(error->msg_id, request->msg_id);
  EXPECT_EQ(FmFreqNow(), (std::vector<int32_t>{-5, 100500, 98000, 90000}));

  Ask(std::make_shared<JsonMsgGetFmQuality>());
  const auto quality = TakeAnswer<JsonMsgFmQuality>();
  EXPECT_EQ(quality->rssi, std::vector<int32_t>(4, 40));
  EXPECT_EQ(quality->snr, std::vector<int32_t>(4, 80));
  EXPECT_EQ(quality->multipath, std::vector<int32_t>(4, 50));
  EXPECT_EQ(quality->pilot, std::vector<int32_t>(4, 1));
}

TEST_F(UnitControlTest, OtherModelsHaveNoTuners) {
  for (const wchar_t* type : {L"QZ610", L"qz820"}) {
    Make(type);
    const std::shared_ptr<JsonMsg> requests[] = {std::make_shared<JsonMsgGetFmFreq>(),
                                                 std::make_shared<JsonMsgSetFmFreq>(),
                                                 std::make_shared<JsonMsgGetFmQuality>()};
    for (const auto& request : requests) {
      Ask(request);
      const auto error = TakeAnswer<JsonMsgError>();
      EXPECT_EQ(error->code, 1u);
      EXPECT_EQ(error->txt, L"Not supported");
      EXPECT_EQ(error->err_msg_id, request->msg_id);
    }
  }
}

}  // namespace
}  // namespace Network
