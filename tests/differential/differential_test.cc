// The C interface and the velk2 tool asked the same questions on the same
// inputs: a store, chains and packages made by the toolkit, verified once
// through velk2.h and once by running the tool with --json. The two must
// give the same verdicts: the same codes, the same stages, the same entries.
#include <sys/wait.h>

#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>

#include "manifest/manifest_test_util.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers
using Json = nlohmann::json;

// The paths of a comparison by status ("valid", "changed", "missing",
// "extra"), relative to the package, directories ending in "/". Statuses
// without paths are left out.
using Groups = std::map<std::string, std::set<std::string>>;

std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct ToolRun {
  int exit = -1;
  std::string command, out, err;
  Json json;  // discarded when stdout is not one JSON value
  std::string Describe() const { return command + "\nstdout: " + out + "\nstderr: " + err; }
};

class Differential : public Package {
 protected:
  std::string Store() const { return dir_.Sub("store"); }

  // Runs the tool with |args|, stdin from /dev/null, stdout and stderr
  // kept. A run that has not ended after two minutes has hung: it is killed.
  ToolRun Tool(const std::vector<std::string>& args) {
    ToolRun run;
    run.command = Quoted(VELK2_TOOL);
    for (const std::string& arg : args) run.command.append(" ").append(Quoted(arg));
    const std::string out = dir_.Sub("tool.out"), err = dir_.Sub("tool.err");
    const int status = std::system(
        ("timeout -s KILL 120 " + run.command + " </dev/null >" + Quoted(out) + " 2>" + Quoted(err))
            .c_str());
    run.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = Read(out);
    run.err = Read(err);
    run.json = Json::parse(run.out, nullptr, false);
    return run;
  }

  static Groups ToolGroups(const Json& json) {
    Groups groups;
    if (!json.contains("entries")) return groups;
    for (const Json& entry : json["entries"]) {
      groups[entry.at("status").get<std::string>()].insert(
          entry.at("path").get<std::string>() + (entry.at("directory").get<bool>() ? "/" : ""));
    }
    return groups;
  }

  // VerifyManifest against `velk2 verify`; |strict|: the C caller fails on
  // extra entries and the tool is not told --allow-extra, else neither.
  // Returns the C code (CreateManifestContextA's when it failed, also put in
  // |created|).
  // Both sides verify with rollback protection: the tool always keeps the
  // store's rollback records, so the C caller turns SetRollbackProtection
  // on and both ask the same question of the same store (the C side first).
  // Repeated verifications of one manifest never go back in time, so
  // neither refuses what the other recorded.
  VELK2_RESULT CompareVerify(const std::string& package, const std::string& manifest,
                             const std::string& tag, bool strict = true, Json* verdict = nullptr,
                             VELK2_RESULT* created = nullptr) {
    SCOPED_TRACE("verify " + package + " --manifest " + manifest + " --tag '" + tag + "'" +
                 (strict ? "" : " --allow-extra"));
    const Outcome c = Verify(manifest, strict, nullptr, package, tag, VELK2_ROLLBACK_PROTECT);
    if (created != nullptr) *created = c.created;
    Groups groups;
    for (const auto& [status, paths] :
         {std::pair{"valid", &c.valid}, std::pair{"changed", &c.invalid},
          std::pair{"missing", &c.missing}, std::pair{"extra", &c.extra}}) {
      if (!paths->empty()) groups[status] = *paths;
    }
    std::vector<std::string> args{"verify", package,      "--store", Store(),  "--tag",
                                  tag,      "--manifest", manifest,  "--json", "--no-progress"};
    if (!strict) args.push_back("--allow-extra");
    const ToolRun tool = Tool(args);
    // A tag that does not read, or a manifest that does not open, is an
    // input problem for the tool: exit 2 and no verdict.
    if (c.created != VELK2_SUCCESS || c.code == VELK2_ERR_OPEN_MANIFEST_FILE) {
      EXPECT_EQ(tool.exit, 2) << "C: " << c.created << "/" << c.code << "\n" << tool.Describe();
      EXPECT_TRUE(tool.out.empty()) << tool.Describe();
      return c.created != VELK2_SUCCESS ? c.created : c.code;
    }
    EXPECT_EQ(tool.exit, c.code == VELK2_SUCCESS ? 0 : 1) << "C: " << c.code << "\n"
                                                          << tool.Describe();
    if (tool.json.is_discarded() || !tool.json.contains("result")) {
      ADD_FAILURE() << "no verdict in JSON\n" << tool.Describe();
      return c.code;
    }
    EXPECT_EQ(tool.json["result"].get<int64_t>(), static_cast<int64_t>(c.code)) << tool.Describe();
    EXPECT_EQ(ToolGroups(tool.json), groups) << tool.Describe();
    // A move the tool names is a missing file and an extra one in the C lists.
    for (const Json& move : tool.json.value("moves", Json::array())) {
      const std::string from = move.at("from"), to = move.at("to");
      EXPECT_TRUE(c.missing.count(from)) << from;
      EXPECT_TRUE(c.extra.count(to)) << to;
    }
    if (verdict != nullptr) *verdict = tool.json;
    return c.code;
  }

  // Velk2CertVerifyFileA against `velk2 cert verify`, both at the instant
  // kSigned. |tag_code|: the tag reader's code for |tag| (0 when it reads).
  // Returns the tool's verdict (an empty object when it gave none).
  Json CompareCertVerify(const std::string& chain, const std::string& tag,
                         VELK2_RESULT tag_code = VELK2_SUCCESS) {
    SCOPED_TRACE("cert verify " + chain + " --tag '" + tag + "'");
    const VELK2_RESULT c = Velk2CertVerifyFileA(chain.c_str(), tag.c_str(), kSigned, kSigned);
    const std::string date = issuing::FormatDate(kSigned);
    const ToolRun tool = Tool({"cert", "verify", chain, "--store", Store(), "--tag", tag,
                               "--not-before", date, "--not-after", date, "--json"});
    if (tag_code != VELK2_SUCCESS) {
      EXPECT_EQ(c, tag_code);
      EXPECT_EQ(tool.exit, 2) << tool.Describe();
      EXPECT_TRUE(tool.out.empty()) << tool.Describe();
      return Json::object();
    }
    EXPECT_EQ(tool.exit, c == VELK2_SUCCESS ? 0 : 1) << "C: " << c << "\n" << tool.Describe();
    if (tool.json.is_discarded() || !tool.json.contains("result")) {
      ADD_FAILURE() << "no verdict in JSON\n" << tool.Describe();
      return Json::object();
    }
    EXPECT_EQ(tool.json["result"].get<int64_t>(), static_cast<int64_t>(c)) << tool.Describe();
    EXPECT_EQ(tool.json.value("authorized", true), c == VELK2_SUCCESS) << tool.Describe();
    return tool.json;
  }

  // A chain file of one certificate from the root to the signer.
  std::string SignerChain(const char* scope = nullptr) {
    const std::string path = NewChainFile();
    Certify(path, kRoot, kSigner, true, scope);
    return path;
  }
};

// Every way of writing a tag: the manifest's verdict, and the chain's.
TEST_F(Differential, TagTextsGetTheSameVerdicts) {
  const std::string chain = SignerChain();
  const std::string manifest = Sign(ReadChain(chain));
  // (Plain tags, narrower and broader ones, are asked of each chain below.
  // An empty text is no question to the tool, a usage mistake, while the
  // C interface reads it: it is left out.)
  const char* const kTags[] = {
      "(pkg \"install\")", " ( pkg  install ) ",           "(tag (pkg install))",
      "(3:pkg7:install)",  "(pkg (* set install update))", "(pkg"};
  size_t verified = 0, refused = 0, unreadable = 0;
  for (const char* tag : kTags) {
    SCOPED_TRACE(std::string("tag '") + tag + "'");
    // Whether the tag reads: CreateManifestContextA reads it and nothing else.
    VELK2_RESULT reads = VELK2_FAILURE;
    const VELK2_RESULT code = CompareVerify(Pkg(), manifest, tag, true, nullptr, &reads);
    const Json chain_verdict = CompareCertVerify(chain, tag, reads);
    if (reads == VELK2_SUCCESS) {
      EXPECT_EQ(chain_verdict.value("stage", ""), "authorization");
    }
    ++(reads != VELK2_SUCCESS ? unreadable : code == VELK2_SUCCESS ? verified : refused);
  }
  // The table holds tags of each kind: granted, not granted, unreadable.
  EXPECT_GE(verified, 1u);
  EXPECT_GE(refused, 3u);
  EXPECT_GE(unreadable, 1u);
}

// A signed package, then copies of it changed in one way each: the code
// and every entry with its status.
TEST_F(Differential, ChangedPackagesGetTheSameEntries) {
  WriteFile(Pkg("bin/lib/libapp.so"), "library");
  Sign();
  // A listed directory with anything wrong below it is changed itself, so
  // only a file missing from the top of the package leaves the code at 5.
  struct Case {
    const char* name;
    std::function<void(const std::string& root)> change;
    VELK2_RESULT strict, lax;  // the codes failing on extra entries, and not
    size_t moves;              // files the tool finds moved
  };
  const Case kCases[] = {
      {"changed file", [](const std::string& root) { WriteFile(root + "/bin/app", "patched"); },
       VELK2_ERR_HASH_MISMATCH, VELK2_ERR_HASH_MISMATCH, 0},
      {"removed file", [](const std::string& root) { fs::remove(root + "/top.txt"); },
       VELK2_ERR_FILE_NOT_FOUND, VELK2_ERR_FILE_NOT_FOUND, 0},
      {"removed file in a subdirectory",
       [](const std::string& root) { fs::remove(root + "/share/doc/README"); },
       VELK2_ERR_HASH_MISMATCH, VELK2_ERR_HASH_MISMATCH, 0},
      {"extra file in a subdirectory",
       [](const std::string& root) { WriteFile(root + "/share/doc/NEWS", "news"); },
       VELK2_ERR_EXTRA_FILES, VELK2_SUCCESS, 0},
      {"extra directory",
       [](const std::string& root) { fs::create_directories(root + "/bin/plugins/empty"); },
       VELK2_ERR_EXTRA_FILES, VELK2_SUCCESS, 0},
      {"file moved within a subdirectory",
       [](const std::string& root) {
         fs::rename(root + "/bin/lib/libapp.so", root + "/bin/lib/libapp.so.1");
       },
       VELK2_ERR_HASH_MISMATCH, VELK2_ERR_HASH_MISMATCH, 1},
      {"file replaced by a directory",
       [](const std::string& root) {
         fs::remove(root + "/bin/tool");
         fs::create_directories(root + "/bin/tool");
       },
       VELK2_ERR_HASH_MISMATCH, VELK2_ERR_HASH_MISMATCH, 0},
  };
  for (size_t i = 0; i < std::size(kCases); ++i) {
    const Case& c = kCases[i];
    SCOPED_TRACE(c.name);
    const std::string root = dir_.Sub("copy" + std::to_string(i));
    fs::copy(Pkg(), root, fs::copy_options::recursive);
    c.change(root);
    Json verdict = Json::object();
    EXPECT_EQ(CompareVerify(root, root + "/manifest", kInstall, true, &verdict), c.strict);
    EXPECT_EQ(verdict.value("moves", Json::array()).size(), c.moves) << verdict;
    EXPECT_EQ(CompareVerify(root, root + "/manifest", kInstall, false), c.lax);
  }

  // Manifests that are not right: missing, or altered after signing.
  SCOPED_TRACE("bad manifests");
  EXPECT_EQ(CompareVerify(Pkg(), dir_.Sub("no-such-manifest"), kInstall),
            VELK2_ERR_OPEN_MANIFEST_FILE);
  std::string altered = Read(Pkg("manifest"));
  const size_t signature = altered.rfind("(7:rsa-pss");
  ASSERT_NE(signature, std::string::npos);
  altered[signature + 20] ^= 1;
  WriteFile(dir_.Sub("altered.manifest"), altered);
  EXPECT_NE(CompareVerify(Pkg(), dir_.Sub("altered.manifest"), kInstall), VELK2_SUCCESS);
  WriteFile(dir_.Sub("truncated.manifest"), altered.substr(0, altered.size() / 2));
  EXPECT_NE(CompareVerify(Pkg(), dir_.Sub("truncated.manifest"), kInstall), VELK2_SUCCESS);
}

// A signer certificate that asks for (revoke pkg) lists, under the store's
// list of that scope in each of its states.
TEST_F(Differential, RevocationGetsTheSameVerdicts) {
  const std::string chain = SignerChain("(revoke pkg)");
  const Ref<CertificateSequence> sequence = ReadChain(chain);
  const std::string manifest = Sign(sequence);
  const Certificate* certificate = sequence->entry(0).certificate;
  const Ref<SexpList> signer_key = PublicKeyList(kSigner);
  struct Case {
    const char* name;
    std::function<void()> store;  // puts the store's list in place, or none
    bool authorized;
    const char* stage;  // where the chain's verification ends
  };
  const Case kCases[] = {
      {"no list", [] {}, false, "revocation"},
      {"a clearing list", [&] { StoreList(RevocationList({}, {})); }, true, "authorization"},
      {"the certificate revoked",
       [&] { StoreList(RevocationList({Revoked(certificate, kJan2026)}, {})); }, false,
       "revocation"},
      {"the certificate revoked after the question",
       [&] { StoreList(RevocationList({Revoked(certificate, kJan2027)}, {})); }, true,
       "authorization"},
      {"the subject key revoked",
       [&] { StoreList(RevocationList({}, {Revoked(signer_key.get(), kJan2026)})); }, false,
       "revocation"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    fs::remove(Store() + "/cert/(revoke pkg).crl");
    c.store();
    const Json verdict = CompareCertVerify(chain, kInstall);
    EXPECT_EQ(verdict.value("stage", ""), c.stage);
    EXPECT_EQ(verdict.value("authorized", !c.authorized), c.authorized);
    const VELK2_RESULT code = CompareVerify(Pkg(), manifest, kInstall);
    EXPECT_EQ(code == VELK2_SUCCESS, c.authorized) << code;
  }
}

// The ACL grants the root (pkg); certificates pass on (pkg install): tags
// equal to, narrower and broader than what the chain grants, or apart.
TEST_F(Differential, ChainsAndTagsGetTheSameVerdicts) {
  Grant(kRoot, "(pkg)", "10");
  struct Chain {
    const char* name;
    bool vendor;            // root -> vendor -> signer, else root -> signer
    bool vendor_delegates;  // the vendor's certificate has propagate
  };
  const Chain kChains[] = {{"root to signer", false, false},
                           {"through a vendor", true, true},
                           {"through a vendor that may not delegate", true, false}};
  struct Tag {
    const char* text;
    bool granted;  // by a chain that holds (pkg install)
  };
  const Tag kTags[] = {{"(pkg install)", true},
                       {"(pkg install now)", true},
                       {"(pkg (* prefix inst))", false},
                       {"(pkg)", false},
                       {"(mail)", false}};
  for (const Chain& chain : kChains) {
    SCOPED_TRACE(chain.name);
    std::string file = NewChainFile();
    if (chain.vendor) {
      Certify(file, kVendor, kSigner, true);
      Certify(file, kRoot, kVendor, chain.vendor_delegates);
    } else {
      Certify(file, kRoot, kSigner, true);
    }
    const std::string manifest = dir_.Sub(std::string("manifest.") + std::to_string(chains_));
    Sign(ReadChain(file), manifest);
    for (const Tag& tag : kTags) {
      SCOPED_TRACE(tag.text);
      const bool granted = tag.granted && (!chain.vendor || chain.vendor_delegates);
      const Json verdict = CompareCertVerify(file, tag.text);
      EXPECT_EQ(verdict.value("stage", ""), "authorization");
      EXPECT_EQ(verdict.value("authorized", !granted), granted);
      EXPECT_EQ(CompareVerify(Pkg(), manifest, tag.text) == VELK2_SUCCESS, granted);
    }
  }
}

}  // namespace
}  // namespace velk2
