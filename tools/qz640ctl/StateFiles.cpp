#include "StateFiles.h"

#include "platform/file.h"
#include "platform/paths.h"

namespace ctl {

std::wstring StateFolder() {
  std::wstring folder = platform::StateDir();
  if (!folder.empty()) folder += std::wstring(L"qz640ctl") + platform::PathSeparator();
  return folder;
}

void MakeStateFolder() {
  const std::wstring folder = StateFolder();
  for (size_t end = folder.find(platform::PathSeparator(), 1); end != std::wstring::npos;
       end = folder.find(platform::PathSeparator(), end + 1)) {
    platform::PathMakeDir(folder.substr(0, end).c_str());
  }
}

std::string ReadStateFile(const std::wstring& path) {
  platform::OpenOptions options;
  options.read = true;
  options.shareWrite = true;
  platform::FileHandle file = platform::kNoFile;
  if (platform::FileOpen(path.c_str(), options, &file, nullptr) != 0) return {};
  std::string all;
  char part[4096];
  uint32_t done = 0;
  while (platform::FileRead(file, part, sizeof part, &done) == 0 && done > 0)
    all.append(part, done);
  platform::FileClose(file);
  return all;
}

bool WriteStateFile(const std::wstring& path, const std::string& bytes) {
  platform::OpenOptions options;
  options.write = true;
  options.disposition = platform::Disposition::CreateAlways;
  options.ownerOnly = true;
  platform::FileHandle file = platform::kNoFile;
  if (platform::FileOpen(path.c_str(), options, &file, nullptr) != 0) return false;
  uint32_t done = 0;
  const uint32_t error =
      platform::FileWrite(file, bytes.data(), static_cast<uint32_t>(bytes.size()), &done);
  platform::FileClose(file);
  return error == 0;
}

}  // namespace ctl
