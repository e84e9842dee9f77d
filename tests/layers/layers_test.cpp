// The layers of the house: every #include "..." of a source file must name a file of its own folder
// or of a folder its layer may use. The table below is the layer rule of docs/architecture.md; a new
// folder must be placed in it before its code can include anything.
//
// Tests (`*_test.cpp`) and test support (`*test_util*`, `*test_support*`, `*_peer*`, fixtures) may
// also use the test peers: the reference server, the scripted kernel module and the scripted agent.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

const fs::path kRoot = TAVREL_SOURCE_DIR;

// Each folder and the folders its code may include besides itself, lowest layer first.
const std::map<std::string, std::set<std::string>>& allowed() {
  static const std::map<std::string, std::set<std::string>> m = [] {
    std::map<std::string, std::set<std::string>> a;
    auto below = [&](const std::string& f, std::set<std::string> use, const std::string& like = "") {
      if (!like.empty()) use.insert(a[like].begin(), a[like].end()), use.insert(like);
      a[f] = use;
    };
    below("src/base", {});
    below("src/proto", {"src/base"});
    below("src/core", {}, "src/proto");
    below("src/xml", {}, "src/proto");
    below("src/db/rec", {"src/core", "src/xml"}, "src/proto");
    below("src/db", {}, "src/db/rec");
    below("src/wan", {}, "src/db/rec");
    below("src/kfsm", {"src/db", "src/wan"}, "src/db/rec");
    for (const char* ns : {"src/ns", "src/fs", "src/cleartext"}) below(ns, {"src/ns", "src/fs", "src/cleartext"}, "src/kfsm");
    below("src/ops", {"src/ns", "src/fs", "src/cleartext"}, "src/kfsm");
    below("src/update", {}, "src/ops");
    below("src/elem", {}, "src/ops");
    below("apps/tavrel_agent", {"src/update", "src/elem"}, "src/ops");
    below("apps/tavrel_dumper", {"src/db"}, "src/db/rec");
    // The other programs stand on the shared vocabulary, not on the agent.
    below("src/client", {"src/xml"}, "src/proto");
    below("server", {}, "src/proto");
    below("kfsmd", {}, "src/proto");
    below("apps/tavrel", {"src/client"}, "src/proto");
    below("apps/tavrel_server", {"server"}, "src/proto");
    below("apps/tavrel_kfsmd", {"kfsmd"}, "src/proto");
    return a;
  }();
  return m;
}

const std::set<std::string> kTestPeers = {"server", "src/kfsm", "kfsmd"};

bool is_test_code(const fs::path& p) {
  const std::string n = p.filename().string();
  return n.find("_test.") != std::string::npos || n.find("test_util") != std::string::npos ||
         n.find("test_support") != std::string::npos || n.find("_peer") != std::string::npos ||
         n.find("scripted") != std::string::npos || n.find("test_") == 0 || n.find("rec_model") == 0;
}

// The folder of the table that holds `rel` (the longest match), or "" when none does.
std::string folder_of(const std::string& rel) {
  std::string best;
  for (const auto& [f, use] : allowed())
    if (rel.rfind(f + "/", 0) == 0 && f.size() > best.size()) best = f;
  return best;
}

TEST(Layers, EveryIncludeStaysInItsLayer) {
  std::vector<std::string> faults;
  int files = 0;
  for (const char* top : {"src", "apps", "server", "kfsmd"}) {
    for (const auto& e : fs::recursive_directory_iterator(kRoot / top)) {
      const std::string ext = e.path().extension().string();
      if (!e.is_regular_file() || (ext != ".cpp" && ext != ".h")) continue;
      const std::string rel = fs::relative(e.path(), kRoot).string();
      const std::string from = folder_of(rel);
      if (from.empty()) {
        faults.push_back(rel + ": its folder has no place in the layers");
        continue;
      }
      files++;
      std::ifstream in(e.path());
      static const std::regex inc(R"(^\s*#\s*include\s+"([^"]+)\")");
      std::string line;
      for (int n = 1; std::getline(in, line); n++) {
        std::smatch m;
        if (!std::regex_search(line, m, inc)) continue;
        const std::string name = m[1];
        // Includes are written from src/ or from the root; one beside the file is its own folder.
        std::string target;
        if (fs::exists(kRoot / "src" / name)) target = "src/" + name;
        else if (fs::exists(kRoot / name)) target = name;
        else if (fs::exists(e.path().parent_path() / name)) continue;
        else {
          faults.push_back(rel + ":" + std::to_string(n) + ": \"" + name + "\" is not a file of the project");
          continue;
        }
        const std::string to = folder_of(target);
        if (to == from || allowed().at(from).count(to)) continue;
        if (is_test_code(e.path()) && kTestPeers.count(to)) continue;
        faults.push_back(rel + ":" + std::to_string(n) + ": " + from + " may not include " + target);
      }
    }
  }
  EXPECT_GT(files, 100);
  for (const std::string& f : faults) ADD_FAILURE() << f;
}

}  // namespace
