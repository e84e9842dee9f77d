// Test fixture pieces for the kernel channel: a temporary directory with a module socket path in it,
// named in TAVREL_KFSM_SOCKET for the process, and a scripted module listening there.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kfsm/kfsm_peer.h"
#include "kfsm/libkfsm.h"
#include "proto/kfsm_wire.h"

namespace kfsm_test {

struct Temp_Socket {
  std::string dir;
  std::string path;
  Temp_Socket() {
    char tmpl[] = "/tmp/kfsm_test.XXXXXX";
    char* d = mkdtemp(tmpl);
    EXPECT_NE(d, nullptr);
    dir = d ? d : "/tmp";
    path = dir + "/kfsm.sock";
    setenv(KFSM_SOCKET_ENV, path.c_str(), 1);
  }
  ~Temp_Socket() {
    unlink(path.c_str());
    rmdir(dir.c_str());
  }
};

class Peer_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    peer = std::make_unique<Kfsm_Peer>(sock.path, "/view");
    ASSERT_EQ(peer->start(), 0);
  }
  void TearDown() override {
    peer->stop();
    kfsm_set_timeouts(60 * 1000, 600 * 1000);
  }

  Temp_Socket sock;
  std::unique_ptr<Kfsm_Peer> peer;
};

}  // namespace kfsm_test
