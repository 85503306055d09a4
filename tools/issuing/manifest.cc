#include "tools/issuing/manifest.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "acl/acl_entry.h"
#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "credentials/revocation_list.h"
#include "frame/paths.h"
#include "manifest/attributes.h"
#include "manifest/body.h"
#include "manifest/context.h"
#include "manifest/patterns.h"
#include "manifest/read.h"
#include "manifest/rollback.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "tools/issuing/issuer.h"
#include "trust/revocation.h"

namespace velk2::issuing {
namespace {

std::string Atom(std::string_view bytes) {
  return std::to_string(bytes.size()).append(":").append(bytes);
}

class Walker {
 public:
  Walker(const ManifestRequest& request, const IgnorePatterns& patterns, std::string* problem)
      : request_(request), patterns_(patterns), problem_(problem) {}

  // The entries of the directory open as |fd| at |relative| ("" for the
  // root), as raw name bytes: a name is recorded as it is on disk.
  Result Entries(int fd, const std::string& relative, std::string* out, int depth) {
    if (depth > kMaxManifestDepth) return Refuse(relative, "is nested too deep");
    std::vector<std::string> names;
    const int copy = ::dup(fd);
    DIR* dir = copy >= 0 ? ::fdopendir(copy) : nullptr;
    if (dir == nullptr) {
      if (copy >= 0) ::close(copy);
      return Refuse(relative, "cannot be listed");
    }
    while (const dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const std::string path = relative.empty() ? name : relative + "/" + name;
      if (request_.ignore.count(path)) continue;
      struct stat st;
      if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return Refuse(path, "cannot be read");
      }
      if (patterns_.Matches(path, S_ISDIR(st.st_mode))) continue;
      if (name.find('\\') != std::string::npos) return Refuse(path, "holds \"\\\"");
      EntryAttributes attributes;
      if (request_.owners) {
        attributes.uid = st.st_uid;
        attributes.gid = st.st_gid;
      }
      if (S_ISDIR(st.st_mode)) {
        const int child =
            ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (child < 0) return Refuse(path, "cannot be opened");
        std::string inner;
        const Result result = Entries(child, path, &inner, depth + 1);
        ::close(child);
        if (result != VELK2_SUCCESS) return result;
        attributes.mode = st.st_mode & 07777;
        out->append("(3:dir")
            .append(Atom(name))
            .append(Atom(FormatEntryAttributes(attributes, true)));
        out->append(inner).append(")");
      } else if (S_ISREG(st.st_mode)) {
        const int file = ::openat(fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (file < 0) return Refuse(path, "cannot be opened");
        uint8_t digest[32];
        struct stat opened;
        const Result result =
            ::fstat(file, &opened) == 0 && S_ISREG(opened.st_mode)
                ? HashDescriptor(file, digest, nullptr, nullptr, opened.st_size, request_.counters)
                : VELK2_ERR_FILE_OPEN;
        ::close(file);
        if (result != VELK2_SUCCESS) return Refuse(path, "cannot be read");
        if (request_.counters != nullptr) {
          request_.counters->files.fetch_add(1, std::memory_order_relaxed);
        }
        attributes.size = static_cast<uint64_t>(opened.st_size);
        attributes.mode = opened.st_mode & 07777;
        AppendFile(name, attributes, digest, out);
      } else if (S_ISLNK(st.st_mode)) {
        // A link is recorded as a link: its target text, signed, never followed.
        std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : 0) + 1, '\0');
        const ssize_t length = ::readlinkat(fd, name.c_str(), target.data(), target.size());
        if (length <= 0 || static_cast<size_t>(length) >= target.size()) {
          return Refuse(path, "is a symlink that cannot be read");
        }
        target.resize(static_cast<size_t>(length));
        uint8_t digest[32];
        if (HashBytes(target, digest) != VELK2_SUCCESS) return Refuse(path, "cannot be hashed");
        attributes.link = true;
        attributes.target = target;
        AppendFile(name, attributes, digest, out);
      } else {
        return Refuse(path,
                      "is neither a regular file, a directory nor a symlink (leave it out "
                      "with --ignore)");
      }
      ++entries_;
    }
    return VELK2_SUCCESS;
  }

  size_t entries() const { return entries_; }

 private:
  static void AppendFile(const std::string& name, const EntryAttributes& attributes,
                         const uint8_t (&digest)[32], std::string* out) {
    out->append("(4:file")
        .append(Atom(name))
        .append(Atom(FormatEntryAttributes(attributes, false)));
    out->append(Atom(std::string_view(reinterpret_cast<const char*>(digest), sizeof digest)));
    out->append(")");
  }

  Result Refuse(const std::string& path, const char* why) {
    *problem_ = (path.empty() ? std::string("the package directory") : path) + " " + why;
    return VELK2_ERR_INVALID_PARAM;
  }

  const ManifestRequest& request_;
  const IgnorePatterns& patterns_;
  std::string* problem_;
  size_t entries_ = 0;
};

}  // namespace

Result MakeManifest(const PrivateKey& key, const ManifestRequest& request, std::string* file,
                    size_t* entries, std::string* problem) {
  if (!request.tag || !request.chain || file == nullptr || problem == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  Ref<SexpList> signer;
  Result result = MakePublicKey(key, &signer);
  if (result != VELK2_SUCCESS) return result;
  if (request.chain->entry_count() == 0 ||
      StoredForm(*request.chain->entry(0).certificate->subject()) != StoredForm(*signer)) {
    *problem = "the chain's first certificate must be the signing key's own";
    return VELK2_ERR_INVALID_PARAM;
  }
  if (!request.name.empty() && !ValidPackageName(request.name)) {
    *problem = "a package name is 1 to 255 bytes of UTF-8 without control characters";
    return VELK2_ERR_INVALID_PARAM;
  }
  IgnorePatterns patterns;
  for (const std::string& pattern : request.patterns) {
    if (!patterns.Add(pattern)) {
      *problem = "not an ignore pattern: " + pattern;
      return VELK2_ERR_INVALID_PARAM;
    }
  }
  // The header records the name and the patterns; without either its second
  // atom stays the plain word older manifests hold.
  const std::string attributes =
      request.name.empty() && request.patterns.empty()
          ? std::string("velk2")
          : HeaderAttributeText(HeaderAttributes{request.name, request.patterns});
  if (attributes.size() > kMaxAtomLength) {
    *problem = "the name and ignore patterns take more than the 8 KiB a header atom holds";
    return VELK2_ERR_INVALID_PARAM;
  }

  const int package = ::open(request.package.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (package < 0) {
    *problem = "no package directory " + request.package;
    return VELK2_ERR_INVALID_PARAM;
  }
  unsigned char token[4];
  if (RAND_bytes(token, sizeof token) != 1) {
    ::close(package);
    return VELK2_FAILURE;
  }
  std::string body = "(4:body(12:random-token4:";
  body.append(reinterpret_cast<char*>(token), sizeof token).append(")");
  Walker walker(request, patterns, problem);
  result = walker.Entries(package, "", &body, 0);
  ::close(package);
  if (result != VELK2_SUCCESS) return result;
  body.push_back(')');

  // The object certificate names the digest of the header lists and the body.
  const std::string date = DateText(request.time_of_signing);
  if (date.empty()) return VELK2_ERR_INVALID_PARAM;
  const std::string version = "(7:version1:1" + Atom(attributes) + ")";
  const std::string type = "(4:type5:plain)";
  const std::string signing = "(15:time-of-signing" + Atom(date) + ")";
  Ref<HashValue> digest = HashValue::New();
  result = digest->Begin(ZCRY_HASH_SHA256);
  for (const std::string* part :
       {&version, &type, &signing, static_cast<const std::string*>(&body)}) {
    if (result == VELK2_SUCCESS) result = digest->Update(part->data(), part->size());
  }
  if (result == VELK2_SUCCESS) result = digest->Finish();
  CertificateRequest object;
  object.issuer = signer;
  object.subject = digest;
  object.tag = request.tag;
  Ref<SexpList> certificate, signature;
  if (result == VELK2_SUCCESS) result = MakeCertificateBody(object, &certificate);
  const bool rsa = key.type() == KeyType::kRsa;
  if (result == VELK2_SUCCESS) {
    result = SignObject(key, *certificate, rsa ? kRsaPss : kDsaSha1,
                        rsa ? ZCRY_HASH_SHA256 : ZCRY_HASH_SHA1, &signature);
  }
  if (result != VELK2_SUCCESS) return result;

  std::string out = "(8:manifest";
  out.append(version.substr(0, version.size() - 1)).append(")");
  out.append(type).append("(15:signature-block").append(signing);
  out.append(StoredForm(*certificate)).append(StoredForm(*signature));
  for (size_t i = 0; i < request.chain->entry_count(); ++i) {
    const CertificateEntry entry = request.chain->entry(i);
    out.append(StoredForm(*entry.certificate)).append(StoredForm(*entry.signature));
  }
  out.append(")(3:crl");
  for (const std::string& list : request.lists) out.append(list);
  out.append(")").append(body).append(")");

  // What the toolkit writes, the library must read.
  ManifestContext check;
  result =
      ReadManifestBytes(&check, std::vector<uint8_t>(out.begin(), out.end()), false, 0, 0, nullptr);
  if (result != VELK2_SUCCESS) {
    *problem = "the manifest made does not read back";
    return result;
  }
  if (entries != nullptr) *entries = walker.entries();
  *file = std::move(out);
  return VELK2_SUCCESS;
}

Result StoreListsForChain(const CertificateSequence& chain, int64_t at,
                          std::vector<ScopeList>* out) {
  out->clear();
  Ref<SexpList> acl;
  const Result acl_loaded = LoadAcl(&acl, nullptr, nullptr);
  Ref<SexpAtom> when = SexpAtom::New();
  Result result = WriteDate(when.get(), at);
  if (result != VELK2_SUCCESS)
    return result == kDateUnrepresentable ? VELK2_ERR_INVALID_PARAM : result;
  std::set<std::string> seen;
  for (size_t i = 0; i < chain.entry_count(); ++i) {
    const SexpList* revocation = chain.entry(i).certificate->revocation_spec();
    if (revocation == nullptr) continue;
    Ref<SexpList> scope;
    if ((result = RevocationScopeOf(*revocation, &scope)) != VELK2_SUCCESS) return result;
    CBuffer<char> text = ToAdvancedText(scope.get(), "tag");
    ScopeList found;
    found.scope = text != nullptr ? text.get() : std::string();
    found.certificate = i;
    if (!seen.insert(StoredForm(*scope)).second) continue;
    std::u16string name;
    Ref<RevocationList> list;
    if (!RevocationStoreName(scope.get(), &name)) {
      found.code = VELK2_ERR_FILE_NOT_FOUND;
    } else {
      // Where checks look for it; only read here, so nothing is created.
      const std::u16string path =
          BuildPath(StoreDirectory(u"cert", kStoreGlobal).c_str(), (name + u".crl").c_str());
      found.list_path = Utf16ToUtf8(path);
      found.code = ReadRevocationListFile(&list, path.c_str(), nullptr);
    }
    if (found.code == VELK2_SUCCESS) {
      found.code = acl_loaded != VELK2_SUCCESS ? VELK2_ERR_ACL_ENTRY_NOT_FOUND
                                               : VerifyRevocationList(acl.get(), list.get());
    }
    if (found.code == VELK2_SUCCESS) {
      // Current as a verification at |at| judges it: not over by then (a
      // list issued later still speaks for the time before it).
      const Certificate* certificate = list->certificate();
      if (!DateAfter(certificate->not_after(), when.get())) {
        found.code = VELK2_ERR_NOT_BEFORE;
      } else {
        found.bytes = StoredForm(*list);
      }
    }
    out->push_back(std::move(found));
  }
  return VELK2_SUCCESS;
}

Result ReadChainFile(const std::string& path, Ref<CertificateSequence>* out) {
  return ReadCertificateFile(out, Utf8ToUtf16(path).c_str(), nullptr);
}

Result ReadListFile(const std::string& path, std::string* bytes) {
  Ref<RevocationList> list;
  const Result r = ReadRevocationListFile(&list, Utf8ToUtf16(path).c_str(), nullptr);
  if (r != VELK2_SUCCESS) return r;
  *bytes = StoredForm(*list);
  return bytes->empty() ? VELK2_ERR_MEM_ALLOC : VELK2_SUCCESS;
}

}  // namespace velk2::issuing
