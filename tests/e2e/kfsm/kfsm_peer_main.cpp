// kfsm_peer: a permissive scripted module for tests that start the agent as a program. It listens on
// the module socket ($TAVREL_KFSM_SOCKET, or --socket) and answers every command with success, the
// root path with --root (default: a directory that exists, /tmp), makes no upcalls, and lets the LPC
// threads go (1046) when the view is removed. It runs until SIGTERM or SIGINT.
#include <signal.h>

#include <cstdio>
#include <string>

#include "kfsm/kfsm_peer.h"
#include "proto/kfsm_wire.h"

int main(int argc, char** argv) {
  std::string socket = kfsm_socket_path();
  std::string root = "/tmp";
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--socket" && i + 1 < argc) socket = argv[++i];
    else if (a == "--root" && i + 1 < argc) root = argv[++i];
    else {
      fprintf(stderr, "usage: kfsm_peer [--socket PATH] [--root DIR]\n");
      return 1;
    }
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  Kfsm_Peer peer(socket, root);
  if (int e = peer.start()) {
    fprintf(stderr, "kfsm_peer: cannot listen on %s: error %d\n", socket.c_str(), e);
    return 1;
  }
  int sig = 0;
  sigwait(&stop, &sig);
  peer.stop();
  return 0;
}
