// wan_bench: what the WAN client costs on top of moving the bytes.
//
//   1. Parsing a reply document in memory, fed in libcurl's 16 KiB blocks, against copying the same
//      blocks (memcpy): the parser's own cost.
//   2. The same reply over loopback HTTP from a cpp-httplib server, through a command, against a plain
//      libcurl transfer that only counts the bytes: the framework's cost on a real transfer.
//   3. The null RPC (POST, Status-only reply) through a command, against plain libcurl POSTs of the same
//      form on one reused handle.
// Usage: wan_bench [MiB of reply, default 64] [null RPCs, default 2000]
#include <curl/curl.h>
#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/stg.h"
#include "proto/reply_writer.h"
#include "wan/login.h"
#include "wan/rclient_abstract_cmd.h"
#include "wan/rclient_session.h"
#include "wan/wan_test_support.h"

using Clock = std::chrono::steady_clock;

namespace {

// Takes every part's body whole, as the metadata commands do, and counts it.
class Count_Cmd : public RClient_Abstract_Cmd {
 public:
  explicit Count_Cmd(const std::string& rpc, const std::string& get_url = std::string()) : RClient_Abstract_Cmd(rpc, true) {
    url = get_url;
  }
  size_t parts = 0, bytes = 0;
  bool offline = false;
  int marshal_request(RClient_Request_Args*) override { return 0; }
  int unmarshal_response() override { return unmarshal_parts(); }
  int unmarshal_part(const std::string&) override {
    long len;
    char* buf;
    int rc = parse_content_with_len(len, buf);
    if (rc) return rc;
    ++parts;
    bytes += static_cast<size_t>(len);
    stg_free(buf);
    return 0;
  }
  bool transfer_executed() const override { return offline || RClient_Abstract_Cmd::transfer_executed(); }
  int feed(char* data, unsigned n) { return process_response(data, n); }
};

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

std::string make_doc(size_t total, size_t part_size) {
  tavrel_wan::ReplyWriter w;
  w.begin();
  std::string body(part_size, 'x');
  for (size_t done = 0; done < total; done += part_size) w.part("Item", body);
  w.status(0);
  w.end();
  return w.take();
}

size_t count_bytes(char*, size_t size, size_t n, void* user) {
  *static_cast<size_t*>(user) += size * n;
  return size * n;
}

}  // namespace

int main(int argc, char** argv) {
  size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 64;
  int rpcs = argc > 2 ? std::atoi(argv[2]) : 2000;
  wan_test::TempHome home;
  const size_t total = mib << 20;
  std::printf("reply of %zu MiB\n", mib);

  for (size_t part_size : {size_t(1024), size_t(64 * 1024)}) {
    std::string doc = make_doc(total, part_size);
    const size_t block = 16384;
    // Baseline: copy the blocks.
    std::vector<char> sink(block);
    auto t0 = Clock::now();
    unsigned long sum = 0;
    for (size_t i = 0; i < doc.size(); i += block) {
      size_t n = std::min(block, doc.size() - i);
      std::memcpy(sink.data(), doc.data() + i, n);
      sum += static_cast<unsigned char>(sink[n / 2]);
    }
    double base = seconds_since(t0);
    Count_Cmd cmd("Bench");
    cmd.offline = true;
    t0 = Clock::now();
    for (size_t i = 0; i < doc.size(); i += block)
      cmd.feed(doc.data() + i, static_cast<unsigned>(std::min(block, doc.size() - i)));
    cmd.receive();
    double parse = seconds_since(t0);
    double mb = static_cast<double>(doc.size()) / (1 << 20);
    std::printf("in memory, parts of %5zu B: parse %8.0f MiB/s, memcpy %8.0f MiB/s, ratio %.3f (%zu parts, peak %zu B)%s\n",
                part_size, mb / parse, mb / base, base / parse, cmd.parts, cmd.peak_response_buffer(), sum ? "" : " ");
  }

  // Over loopback HTTP.
  wan_test::Test_Wan_Server server;
  server.add_user("u", "p");
  for (size_t part_size : {size_t(1024), size_t(64 * 1024)}) {
    auto doc = std::make_shared<std::string>(make_doc(total, part_size));
    server.on_get("/tavrel/bench", [doc](const wan_test::Recorded&, httplib::Response& res) {
      res.set_chunked_content_provider("multipart/mixed", [doc](size_t offset, httplib::DataSink& sink) {
        if (offset >= doc->size()) {
          sink.done();
          return true;
        }
        return sink.write(doc->data() + offset, std::min<size_t>(65536, doc->size() - offset));
      });
    });
    Login login("u", "p", "", "", "", server.base_url());
    if (login.run() != 0) {
      std::fprintf(stderr, "login failed\n");
      return 1;
    }
    auto ctx = RClient_Session::get_session()->get_request_context();
    const std::string url = server.base_url() + "/bench";
    // Baseline: libcurl alone.
    CURL* c = curl_easy_init();
    size_t got = 0;
    curl_slist* hdr = curl_slist_append(nullptr, ("Cookie: JSESSIONID=" + ctx.jsessionid + ";Session=" + ctx.session_id).c_str());
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, hdr);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, count_bytes);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &got);
    auto t0 = Clock::now();
    curl_easy_perform(c);
    double base = seconds_since(t0);
    curl_easy_cleanup(c);
    curl_slist_free_all(hdr);
    Count_Cmd cmd("", url);
    t0 = Clock::now();
    int rc = cmd.run();
    double through = seconds_since(t0);
    double mb = static_cast<double>(doc->size()) / (1 << 20);
    std::printf("loopback HTTP, parts of %5zu B: command %8.0f MiB/s, libcurl alone %8.0f MiB/s, ratio %.3f (status %d, %zu parts, peak %zu B, baseline got %zu B)\n",
                part_size, mb / through, mb / base, base / through, rc, cmd.parts, cmd.peak_response_buffer(), got);
  }

  // Null RPC.
  server.on_rpc("Null", [](const wan_test::Recorded&, httplib::Response& res) {
    res.set_content(tavrel_wan::reply_status_only(0), "multipart/mixed");
  });
  auto ctx = RClient_Session::get_session()->get_request_context();
  CURL* c = curl_easy_init();
  size_t got = 0;
  curl_slist* hdr = curl_slist_append(nullptr, ("Cookie: JSESSIONID=" + ctx.jsessionid + ";Session=" + ctx.session_id).c_str());
  hdr = curl_slist_append(hdr, "Expect:");
  curl_easy_setopt(c, CURLOPT_URL, server.base_url().c_str());
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, hdr);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, count_bytes);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &got);
  curl_easy_setopt(c, CURLOPT_TCP_NODELAY, 1L);
  curl_mime* form = curl_mime_init(c);
  curl_mimepart* p = curl_mime_addpart(form);
  curl_mime_name(p, "rpc");
  curl_mime_data(p, "Null", CURL_ZERO_TERMINATED);
  p = curl_mime_addpart(form);
  curl_mime_name(p, "rpcargs");
  curl_mime_data(p, "", CURL_ZERO_TERMINATED);
  curl_easy_setopt(c, CURLOPT_MIMEPOST, form);
  auto t0 = Clock::now();
  for (int i = 0; i < rpcs; ++i) curl_easy_perform(c);
  double base = seconds_since(t0);
  curl_mime_free(form);
  curl_easy_cleanup(c);
  curl_slist_free_all(hdr);
  int failures = 0;
  t0 = Clock::now();
  for (int i = 0; i < rpcs; ++i) {
    Count_Cmd cmd("Null");
    if (cmd.run() != 0 || cmd.get_status_code() != 0) ++failures;
  }
  double through = seconds_since(t0);
  std::printf("null RPC: command %8.0f /s, libcurl alone %8.0f /s, ratio %.3f (%d failures)\n", rpcs / through,
              rpcs / base, base / through, failures);
  return failures ? 1 : 0;
}
