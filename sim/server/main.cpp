// tarn-devsim: presents simulated iPod/iPhone/iPad devices to
// libimobiledevice clients through a private usbmux socket.
#include <signal.h>
#include <sys/signalfd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "server.h"

namespace {

const char kHelp[] = R"(usage: tarn-devsim --socket PATH [--device IMAGE[,KEY=VALUE...]]...

Serves simulated devices on the usbmux socket PATH. Point any
libimobiledevice client at it with USBMUXD_SOCKET_ADDRESS=UNIX:PATH.
A control socket PATH.ctl (JSON lines) lets test fixtures change options,
attach and detach devices and read statistics while running.
Prints "tarn-devsim: ready on PATH" once both sockets accept connections;
SIGTERM or SIGINT stops it and removes both socket files.

An image is a directory: IMAGE/media is the device's media partition (the
file-conduit root), IMAGE/device.json the optional description.

Device options (also settable at run time through the control socket):
  udid=ID                 identifier (default: the description's
                          UniqueDeviceID, else derived from the image path)
  version=X.Y[.Z]         ProductVersion override
  name=NAME               DeviceName override
  max_files=N             file handles a file-conduit connection may hold
                          (default 256); one more fails with code 3
  refuse_handshake=1      lockdown refuses ValidatePair/StartSession
                          (InvalidHostID), so handshakes fail
  refuse_afc=1            StartService for com.apple.afc answers
                          ServiceProhibited
  afc_error=CODE:GLOB     file-conduit requests whose path matches the
                          fnmatch pattern GLOB answer the AFC error CODE;
                          may repeat; an empty value clears the list
  drop_after_requests=N   a file-conduit connection is closed, unanswered,
                          at its request N+1
  drop_after_bytes=N      a file-conduit connection closes once N bytes have
                          passed in both directions, also inside a packet
  latency_us=N            every lockdown and file-conduit request waits N
                          microseconds before it is answered
  stall_after_requests=N  a lockdown or file-conduit connection leaves its
                          request N+1 unanswered (the client's receive
                          timeout decides what happens)

States of a real phone:
  ssl=0                   StartSession answers EnableSessionSSL false and
                          the session stays plain (default 1: TLS until
                          StopSession); only for measuring what TLS costs
  paired=0                the host holds no pair record and the phone trusts
                          no host; clients pair themselves (paired=1 makes a
                          fresh pairing with the default record)
  pair_answer=A           how Pair is answered: pending (default, the Trust
                          dialog is still open), denied, passcode (locked
                          with a passcode) or accept (the user tapped Trust)
  locked=1                not unlocked since switched on: ValidatePair,
                          StartSession, StartService and Pair answer
                          PasswordProtected
  stale_pairing=1         the phone no longer knows the host's record (reset
                          or restored): ValidatePair/StartSession answer
                          InvalidHostID
  ssl_fail=1              the TLS handshake after StartSession is refused
  syncing=1               another computer syncs the phone: it holds the
                          lock on /com.apple.itunes.lock_sync, so a lock
                          request on that file answers 19 (would block)
  handshake_delay_us=N    the phone's share of a session: N microseconds
                          before its TLS handshake (with ssl=0, before
                          the StartSession answer)
  sorted_listing=1        directories list byte-wise sorted (old behaviour)
Counts for the drop_* and stall_* switches start when the connection opens or the
device's options last changed, whichever is later. 0 switches them off.

Options:
  --socket PATH   usbmux socket to create (required)
  --device SPEC   attach a device at start; may repeat
  --help          this text
)";

}  // namespace

int main(int argc, char** argv) {
  std::string socket;
  std::vector<std::string> device_options;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return 0;
    }
    if ((a == "--socket" || a == "--device") && i + 1 < argc) {
      (a == "--socket" ? socket : device_options.emplace_back()) = argv[++i];
    } else if (a.rfind("--socket=", 0) == 0) {
      socket = a.substr(9);
    } else if (a.rfind("--device=", 0) == 0) {
      device_options.push_back(a.substr(9));
    } else {
      std::fprintf(stderr, "tarn-devsim: unknown argument %s (try --help)\n", a.c_str());
      return 2;
    }
  }
  if (socket.empty()) {
    std::fputs("tarn-devsim: --socket PATH is required (try --help)\n", stderr);
    return 2;
  }

  // Signals arrive on a descriptor the main loop polls; every thread spawned
  // later inherits the mask, so no worker is interrupted by them.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  devsim::Fd sfd(::signalfd(-1, &set, SFD_CLOEXEC));
  if (!sfd.valid()) {
    std::perror("tarn-devsim: signalfd");
    return 1;
  }

  devsim::Server server(socket);
  for (const auto& device_option : device_options) {
    std::vector<std::string> parts;
    size_t i = 0;
    while (true) {
      size_t j = device_option.find(',', i);
      parts.push_back(device_option.substr(i, j == std::string::npos ? std::string::npos : j - i));
      if (j == std::string::npos) break;
      i = j + 1;
    }
    std::string image = parts.front();
    parts.erase(parts.begin());
    if (auto err = server.attach(image, parts); !err.empty()) {
      std::fprintf(stderr, "tarn-devsim: %s\n", err.c_str());
      return 1;
    }
  }
  if (auto err = server.listen(); !err.empty()) {
    std::fprintf(stderr, "tarn-devsim: %s\n", err.c_str());
    return 1;
  }
  std::printf("tarn-devsim: ready on %s\n", socket.c_str());
  std::fflush(stdout);
  server.run(sfd.get());
  return 0;
}
