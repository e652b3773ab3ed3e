// "up" and what only this family of systems has: links to programs, sockets of a supervisor, tools
// of a packet filter.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ctl/CtlFixture.h"

namespace wire {
namespace {

namespace files = std::filesystem;

class CtlUpPosix : public testing::Test {
 protected:
  CtlUpPosix() : folder_("/tmp/up-posix-" + std::to_string(OwnProcessId())) {
    files::create_directories(folder_ / "bin");
  }
  ~CtlUpPosix() override { files::remove_all(folder_); }

  const files::path folder_;
};

// A package links its programs, and nobody may write beside the real one.
TEST_F(CtlUpPosix, FollowsLinksToTheEmulatorAndFindsAnotherTemporaryFolder) {
  files::create_directories(folder_ / "lib");
  files::copy_file(QZ_EMULATOR, folder_ / "lib" / "qz640emu");
  files::create_symlink("../lib/qz640emu", folder_ / "bin" / "qz640emu");
  Process up(QZ_CTL, {.arguments = {"up", "--emulator", (folder_ / "bin" / "qz640emu").string(),
                                    "--addr", OwnAddress(), "--", "true"},
                      .environment = {{"TMPDIR", (folder_ / "missing").string()}}});
  EXPECT_EQ(up.WaitExit(), 0) << up.ErrorOutput();
  EXPECT_NE(up.ErrorOutput().find("missing is no folder that is there"), std::string::npos);
  EXPECT_FALSE(files::exists(folder_ / "lib" / "qz640emu.json"));
}

TEST_F(CtlUpPosix, TellsItsSupervisorWhenTheUnitsAnswer) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = (folder_ / "notify").string();
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int supervisor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(supervisor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  Process up(QZ_CTL, {.arguments = {"up", "--emulator", QZ_EMULATOR, "--addr", OwnAddress()},
                      .environment = {{"NOTIFY_SOCKET", path}}});
  ASSERT_TRUE(up.WaitLine("running until the service is stopped")) << up.ErrorOutput();
  char text[128] = {};
  EXPECT_GT(recv(supervisor, text, sizeof text - 1, MSG_DONTWAIT), 0);
  const std::string expected = "READY=1\nSTATUS=answering at " + OwnAddress() + ":";
  EXPECT_EQ(std::string(text).substr(0, expected.size()), expected);
  close(supervisor);
}

// A shell takes the last of two equal names: it would look at, or end, the units of somebody else.
TEST_F(CtlUpPosix, ACommandSeesItsOwnUnitsAlone) {
  Process up(QZ_CTL, {.arguments = {"up", "--units", "QZ610", "--addr", OwnAddress(), "--emulator",
                                    QZ_EMULATOR, "--", "sh", "-c", "test $QZ640_UNIT0_ID = emu-1"},
                      .environment = {{"QZ640_UNIT0_ID", "another"}}});
  EXPECT_EQ(up.WaitExit(), 0) << up.ErrorOutput();
}

TEST_F(CtlUpPosix, TheDoctorAsksThePacketFilter) {
  const files::path tool = folder_ / "bin" / "nft";
  std::ofstream(tool) << "#!/bin/sh\nprintf 'table ip f {\\n\\tchain c {\\n\\t\\ttype filter hook "
                         "input priority 0; policy drop;\\n\\t}\\n}\\n'\n";
  files::permissions(tool, files::perms::owner_all);
  const TestFile settings("f.json");
  settings.Write(R"({"AddrStr":"0.0.0.0","BasePort":8300,"BroadcastPort":15301})");
  Process doctor(QZ_CTL,
                 {.arguments = {"doctor", settings.Text()},
                  .environment = {{"PATH", (folder_ / "bin").string() + ":/usr/bin:/bin"}}});
  EXPECT_EQ(doctor.WaitExit(), 1);
  EXPECT_NE(doctor.Output().find("the packet filter drops UDP to 3 of 3 ports"), std::string::npos)
      << doctor.Output();
}

// What was looked at before Ctrl-C says nothing of the rest.
TEST_F(CtlUpPosix, AnInterruptedDoctorAcquitsNobody) {
  Process doctor(QZ_CTL, {.arguments = {"doctor"}});
  ASSERT_TRUE(doctor.WaitLine("clock and scheduling"));
  Interrupt(doctor.Id());
  EXPECT_EQ(doctor.WaitExit(), 1);
  EXPECT_TRUE(doctor.WaitLine("not finished: stopped in the middle"));
}

}  // namespace
}  // namespace wire
