#include "Capture.h"

#include <chrono>
#include <exception>
#include <thread>

#include "ExitStatus.h"

#ifdef QZ_HAVE_PCAP
#include <pcap/pcap.h>
#endif

namespace ctl {

#ifdef QZ_HAVE_PCAP

namespace {

constexpr int kWholeFrames = 262'144;  // bytes
constexpr int kBuffer = 16 << 20;      // bytes that may wait, some seconds of a busy network
constexpr int kWaitMs = 100;
constexpr std::chrono::milliseconds kPause{20};

}  // namespace

struct Capture::Impl {
  ~Impl() {
    if (handle != nullptr) pcap_close(handle);
  }

  pcap_t* handle = nullptr;
};

Capture::Capture(const std::string& interface) : impl_(std::make_unique<Impl>()) {
  char why[PCAP_ERRBUF_SIZE] = "";
  pcap_t* const handle = impl_->handle = pcap_create(interface.c_str(), why);
  if (handle == nullptr) throw Failure{kUsage, "can't capture on " + interface + ": " + why};
  pcap_set_snaplen(handle, kWholeFrames);
  pcap_set_buffer_size(handle, kBuffer);
  pcap_set_timeout(handle, kWaitMs);
  pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);
  const int status = pcap_activate(handle);
  if (status == PCAP_ERROR_PERM_DENIED) {
    throw Failure{kNoPort, "you may not capture on " + interface +
                               "; run this as root, or permit it once with \"sudo setcap "
                               "cap_net_raw+ep qz640ctl\""};
  }
  if (status < 0) {
    throw Failure{kUsage, "can't capture on " + interface + ": " + pcap_geterr(handle) +
                              " (qz640ctl doctor lists the interfaces)"};
  }
  // On Linux the timeout begins with the first frame: nobody sends, and the wait would never end.
  pcap_setnonblock(handle, 1, why);
  bpf_program program{};
  if (pcap_compile(handle, &program, "udp", 1, PCAP_NETMASK_UNKNOWN) == 0) {
    pcap_setfilter(handle, &program);
    pcap_freecode(&program);
  }
}

Capture::~Capture() = default;

uint32_t Capture::LinkType() const {
  return static_cast<uint32_t>(pcap_datalink(impl_->handle));
}

void Capture::Take(const std::function<void(const CapturedFrame&)>& take) {
  struct Context {
    const std::function<void(const CapturedFrame&)>& take;
    uint32_t linkType;
    std::exception_ptr error;  // the library is C, which an exception may not pass
    pcap_t* handle;
  } context{take, LinkType(), nullptr, impl_->handle};
  const auto call = [](u_char* user, const pcap_pkthdr* header, const u_char* bytes) {
    auto& to = *reinterpret_cast<Context*>(user);
    const int64_t time = header->ts.tv_sec * INT64_C(1'000'000'000) + header->ts.tv_usec;
    try {
      to.take({to.linkType, time, wire::Bytes(bytes, bytes + header->caplen)});
    } catch (...) {
      to.error = std::current_exception();
      pcap_breakloop(to.handle);
    }
  };
  const int count = pcap_dispatch(impl_->handle, -1, call, reinterpret_cast<u_char*>(&context));
  if (context.error) std::rethrow_exception(context.error);
  if (count == PCAP_ERROR) {
    throw Failure{kRefused, std::string("the capture has ended: ") + pcap_geterr(impl_->handle)};
  }
  if (count == 0) std::this_thread::sleep_for(kPause);
}

uint64_t Capture::Dropped() {
  pcap_stat stat{};
  return pcap_stats(impl_->handle, &stat) == 0 ? stat.ps_drop : 0;
}

#else

struct Capture::Impl {};

Capture::Capture(const std::string& interface) {
  throw Failure{kUsage, "this qz640ctl was built without libpcap and can't capture on " +
                            interface + "; read a file with -r, which any capture program writes"};
}

Capture::~Capture() = default;

uint32_t Capture::LinkType() const {
  return 0;
}

void Capture::Take(const std::function<void(const CapturedFrame&)>&) {}

uint64_t Capture::Dropped() {
  return 0;
}

#endif

}  // namespace ctl
