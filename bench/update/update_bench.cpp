// update_bench: what parsing a view update stream costs on top of moving its bytes.
//
// The stream: one SILO, one scope, N loaded files, each a SyncElemInfo part and its two metadata
// parts (about 0.6 KB an element), as a server sends a first load.
//   1. In memory, fed in libcurl's 16 KiB blocks to View_Update with a null listener: elements/s.
//   2. Over loopback HTTP from a cpp-httplib server (64 KiB chunks), View_Update::run() with a null
//      listener, against a plain libcurl POST of the same RPC that only counts the bytes: elements/s
//      and the ratio.
// Usage: update_bench [elements, default 100000] [runs, default 3]
#include <curl/curl.h>
#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "proto/reply_writer.h"
#include "proto/tavrel_records.h"
#include "proto/wan_names.h"
#include "wan/login.h"
#include "wan/rclient_session.h"
#include "wan/view_update.h"
#include "wan/wan_test_support.h"

using Clock = std::chrono::steady_clock;
namespace n = tavrel_wan;

namespace {

struct Null_Listener : RClient_Update_Listener {
  size_t updates = 0;
  bool begin_operation(unsigned) override { return true; }
  bool begin_scope(const tavrel_scope&) override { return true; }
  bool begin_silo(const tbs_uuid_s&, const tbs_oid_s&) override { return true; }
  bool update_object(const tbs_uuid_s&, const tbs_oid_s&, const std::string&, const std::string&, const std::string&,
                     const tavrel_vstat&, const tavrel_vstat&) override {
    ++updates;
    return true;
  }
  bool unload_object(const tbs_uuid_s&, const tbs_oid_s&, const std::string&, const tbs_oid_s&) override { return true; }
  bool end_scope() override { return true; }
  bool end_silo() override { return true; }
  bool end_operation() override { return true; }
};

struct Fed_Update : View_Update {
  explicit Fed_Update(RClient_Update_Listener* l) : View_Update(tbs_uuid_s{{1}}, 0, 0, 1, 0, {}, l) {}
  bool done = false;
  bool transfer_executed() const override { return done; }
  int feed(const char* data, size_t n) { return process_response(const_cast<char*>(data), static_cast<unsigned>(n)); }
  int finish() {
    done = true;
    return receive();
  }
};

tbs_oid_s oid(size_t i, uint8_t kind) {
  tbs_oid_s o{};
  std::memcpy(o.bytes, &i, sizeof i);
  o.bytes[15] = kind;
  return o;
}

std::string make_stream(size_t count) {
  n::ReplyWriter w;
  w.begin();
  w.part(n::PART_SYNC_FETCH_BEGIN, {{n::ITEM_OPERATION_GN, "2"}}, "");
  w.part(n::PART_SILO_FETCH_BEGIN, {{n::ITEM_REPLICA_UUID, "0123abcd-0123-4567-89ab-0123456789ab"},
                                    {n::ITEM_FAMILY_OID, "fedcba98-7654-3210-fedc-ba9876543210"}}, "");
  tavrel_scope scope{oid(0, 1), {}, 2, "/proj"};
  std::string rec;
  tavrel_scope_encode(&scope, &rec);
  w.part(n::PART_SCOPE_FETCH_BEGIN, rec);
  tavrel_vstat v{};
  v.vstat.fstat.type = 1;
  v.vstat.fstat.mode = 0444;
  v.vstat.fstat.nlink = 1;
  v.vstat.fstat.group = v.vstat.fstat.owner = credutl_sid_t{};
  for (size_t i = 0; i < count; ++i) {
    tavrel_synceleminfo_t e{};
    std::snprintf(e.object_path, sizeof e.object_path, "/proj/src/dir%zu/file%zu.c", i / 100, i);
    e.parent_oid = oid(i / 100, 2);
    e.replica_uuid = tbs_uuid_s{{9}};
    e.object_oid = oid(i, 5);
    std::snprintf(e.curr_version_str, sizeof e.curr_version_str, "main/%zu", i % 7 + 1);
    tavrel_synceleminfo_encode(&e, &rec);
    w.part(n::PART_SYNC_ELEM_INFO, rec);
    v.vstat.mtype = SILO_MTYPE_FILE_VER;
    v.vstat.obj_oid = oid(i, 6);
    v.vstat.elem_oid = e.object_oid;
    v.vstat.fstat.size = 1000 + i;
    tavrel_vstat_encode(&v, &rec);
    w.part(n::PART_OBJ_METADATA, rec);
    v.vstat.mtype = SILO_MTYPE_FILE_ELEM;
    v.vstat.obj_oid = e.object_oid;
    tavrel_vstat_encode(&v, &rec);
    w.part(n::PART_ELEM_METADATA, rec);
  }
  w.part(n::PART_SCOPE_FETCH_END, "");
  w.part(n::PART_SILO_FETCH_END, "");
  w.part(n::PART_SYNC_FETCH_END, "");
  w.status(0);
  w.end();
  return w.take();
}

size_t count_bytes(char*, size_t size, size_t nmemb, void* user) {
  *static_cast<size_t*>(user) += size * nmemb;
  return size * nmemb;
}

double since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

}  // namespace

int main(int argc, char** argv) {
  const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  wan_test::TempHome home;
  auto doc = std::make_shared<std::string>(make_stream(count));
  std::printf("stream of %zu elements, %.1f MiB (%.0f B an element)\n", count, doc->size() / 1048576.0,
              static_cast<double>(doc->size()) / static_cast<double>(count));
  int failures = 0;

  for (int r = 0; r < runs; ++r) {
    Null_Listener l;
    Fed_Update cmd(&l);
    auto t0 = Clock::now();
    for (size_t i = 0; i < doc->size(); i += 16384) cmd.feed(doc->data() + i, std::min<size_t>(16384, doc->size() - i));
    int rc = cmd.finish();
    double s = since(t0);
    if (rc != 0 || l.updates != count) ++failures;
    std::printf("in memory: %10.0f elements/s (%.3f s, status %d, %zu delivered, peak buffer %zu B)\n", count / s, s,
                rc, l.updates, cmd.peak_response_buffer());
  }

  wan_test::Test_Wan_Server server;
  server.add_user("u", "p");
  server.on_rpc(n::RPC_SYNCFETCH, [doc](const wan_test::Recorded&, httplib::Response& res) {
    res.set_chunked_content_provider("multipart/mixed", [doc](size_t offset, httplib::DataSink& sink) {
      if (offset >= doc->size()) {
        sink.done();
        return true;
      }
      return sink.write(doc->data() + offset, std::min<size_t>(65536, doc->size() - offset));
    });
  });
  Login login("u", "p", "", "", "", server.base_url());
  if (login.run() != 0 || login.get_status_code() != 0) {
    std::fprintf(stderr, "login failed\n");
    return 1;
  }
  auto ctx = RClient_Session::get_session()->get_request_context();
  for (int r = 0; r < runs; ++r) {
    // Baseline: the same RPC through libcurl alone, counting the bytes.
    CURL* c = curl_easy_init();
    size_t got = 0;
    curl_slist* hdr = curl_slist_append(nullptr, ("Cookie: JSESSIONID=" + ctx.jsessionid + ";Session=" + ctx.session_id).c_str());
    hdr = curl_slist_append(hdr, "Expect:");
    curl_easy_setopt(c, CURLOPT_URL, server.base_url().c_str());
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, hdr);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, count_bytes);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &got);
    curl_mime* form = curl_mime_init(c);
    curl_mimepart* p = curl_mime_addpart(form);
    curl_mime_name(p, "rpc");
    curl_mime_data(p, n::RPC_SYNCFETCH, CURL_ZERO_TERMINATED);
    p = curl_mime_addpart(form);
    curl_mime_name(p, "rpcargs");
    curl_mime_data(p, "", CURL_ZERO_TERMINATED);
    curl_easy_setopt(c, CURLOPT_MIMEPOST, form);
    auto t0 = Clock::now();
    curl_easy_perform(c);
    double base = since(t0);
    curl_mime_free(form);
    curl_easy_cleanup(c);
    curl_slist_free_all(hdr);

    Null_Listener l;
    View_Update cmd(tbs_uuid_s{{1}}, 0, 0, 1, 0, {}, &l);
    t0 = Clock::now();
    int rc = cmd.run();
    double s = since(t0);
    if (rc != 0 || l.updates != count || got != doc->size()) ++failures;
    std::printf("loopback HTTP: View_Update %10.0f elements/s, libcurl alone %10.0f elements/s, ratio %.2f "
                "(status %d, %zu delivered, peak buffer %zu B, baseline got %zu B)\n",
                count / s, count / base, base / s, rc, l.updates, cmd.peak_response_buffer(), got);
  }
  return failures ? 1 : 0;
}
