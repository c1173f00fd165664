#include "Velum/Platform/Linux/Certificates/NssDatabase.h"

#include <cert.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <nss.h>
#include <pk11pub.h>
#include <pkcs11n.h>
#include <prerror.h>
#include <secerr.h>
#include <secmod.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/Deadline.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Files/LockedFile.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Linux/Certificates/CertificatePlace.h"

namespace velum {
namespace {

constexpr char labelSeparator = ' ';

/// Whose turn it is. NSS locks for itself while it runs, but not while one context is opened and
/// another closed; and a child that was forked in the middle could never use it again. So a fork
/// waits for the turn, but not for long: the database may lie on a volume that has gone, and the
/// child does without then.
class NssTurn final : public ForkParticipant {
 public:
  static NssTurn& shared() {
    static NssTurn& instance = *new NssTurn;  // NOLINT(*-owning-memory): never destroyed
    return instance;
  }

  /// Throws CertificateFailure in a child that was forked in the middle.
  void lock() {
    if (isBroken_) {
      throw CertificateFailure(errSecNotAvailable,
                               "Certificates can't be used in this process: it was forked while "
                               "another thread waited for their database. Start it anew.");
    }
    lock_.lock();
  }
  void unlock() noexcept { lock_.unlock(); }

  void prepareFork() noexcept override {
    constexpr int tries = 1000;
    constexpr timespec pause{.tv_sec = 0, .tv_nsec = 1'000'000};
    isForkers_ = lock_.try_lock();
    for (int i = 0; i < tries && !isForkers_; ++i) {
      ::nanosleep(&pause, nullptr);
      isForkers_ = lock_.try_lock();
    }
  }
  void afterForkInParent() noexcept override {
    if (isForkers_) lock_.unlock();
  }
  void afterForkInChild() noexcept override {
    isBroken_ = isBroken_ || !isForkers_;
    lock_.resetAfterFork();
  }

 private:
  NssTurn() : ForkParticipant(Stage::outside) { registerForFork(); }

  UnfairLock lock_;
  bool isForkers_ = false;
  bool isBroken_ = false;  // for ever: of a parent's thread
};

struct Release {
  void operator()(NSSInitContext* context) const noexcept { NSS_ShutdownContext(context); }
  void operator()(PK11SlotInfo* slot) const noexcept {
    SECMOD_CloseUserDB(slot);
    PK11_FreeSlot(slot);
  }
  void operator()(CERTCertificate* certificate) const noexcept {
    CERT_DestroyCertificate(certificate);
  }
  void operator()(PK11GenericObject* first) const noexcept { PK11_DestroyGenericObjects(first); }
};
template <class T>
using Owned = std::unique_ptr<T, Release>;

using Bytes = std::vector<std::uint8_t>;

[[noreturn]] void failLast(const char* call) {
  const int code = PORT_GetError();
  const char* const text = PORT_ErrorToString(code);
  throw CertificateFailure(
      errSecIO, fmt::format("{}: {} ({})", call, text != nullptr ? text : "unknown error", code));
}

void require(SECStatus status, const char* call) {
  if (status != SECSuccess) failLast(call);
}

std::string databaseFile(const std::string& folder) {
  return folder + "/cert9.db";
}

std::string databaseIs(const std::string& folder) {
  return fmt::format("The certificate database {} is", folder);
}

/// The file of the database that somebody has locked.
std::optional<std::string> lockedFile(const std::string& folder) {
  for (std::string file : {databaseFile(folder), folder + "/key4.db"}) {
    if (holderOfLock(file)) return file;
  }
  return std::nullopt;
}

/// Quoted as NSS's own parameters are.
std::string parameters(const std::string& folder, NssDatabase::Access access) {
  std::string quoted;
  for (const char c : folder) {
    if (c == '\'' || c == '\\') quoted += '\\';
    quoted += c;
  }
  const bool canWrite = access == NssDatabase::Access::write;
  return fmt::format("configDir='sql:{}' tokenDescription='Certificates'{}", quoted,
                     canWrite ? "" : " flags=readOnly");
}

template <class T>
CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, T& value) {
  return {type, &value, sizeof value};
}

CK_ATTRIBUTE attribute(CK_ATTRIBUTE_TYPE type, Bytes& value) {
  return {type, value.data(), static_cast<CK_ULONG>(value.size())};
}

Bytes digest(SECOidTag algorithm, unsigned size, const Bytes& bytes) {
  Bytes result(size);
  require(PK11_HashBuf(algorithm, result.data(), bytes.data(), static_cast<PRInt32>(bytes.size())),
          "PK11_HashBuf");
  return result;
}

constexpr std::array<CK_ATTRIBUTE_TYPE, trustUseCount> trustAttributes{
    CKA_TRUST_SERVER_AUTH, CKA_TRUST_CLIENT_AUTH, CKA_TRUST_EMAIL_PROTECTION,
    CKA_TRUST_CODE_SIGNING};

Trust trustOf(CK_TRUST value) {
  switch (value) {
    case CKT_NSS_TRUSTED_DELEGATOR:
      return Trust::authority;
    case CKT_NSS_TRUSTED:
      return Trust::itself;
    case CKT_NSS_NOT_TRUSTED:
      return Trust::denied;
    default:
      return Trust::unknown;
  }
}

CK_TRUST valueOf(Trust trust) {
  switch (trust) {
    case Trust::authority:
      return CKT_NSS_TRUSTED_DELEGATOR;
    case Trust::itself:
      return CKT_NSS_TRUSTED;
    case Trust::denied:
      return CKT_NSS_NOT_TRUSTED;
    case Trust::unknown:
      break;
  }
  return CKT_NSS_MUST_VERIFY_TRUST;
}

Bytes readAttribute(PK11GenericObject* object, CK_ATTRIBUTE_TYPE type) {
  SECItem value{};
  if (PK11_ReadRawAttribute(PK11_TypeGeneric, object, type, &value) != SECSuccess) return {};
  Bytes bytes(value.data, value.data + value.len);
  SECITEM_FreeItem(&value, PR_FALSE);
  return bytes;
}

/// The certificate and its label; nothing when it is none that this library understands.
std::optional<CertificateItem> itemOf(PK11GenericObject* object) {
  auto certificate = SecCertificate::fromDer(readAttribute(object, CKA_VALUE));
  if (!certificate) return std::nullopt;
  const Bytes bytes = readAttribute(object, CKA_LABEL);
  std::string label(labelOf(std::string(bytes.begin(), bytes.end()), labelSeparator, *certificate));
  return CertificateItem{std::move(label), std::move(*certificate)};
}

void destroy(PK11SlotInfo* slot, PK11GenericObject* object) {
  const CK_OBJECT_HANDLE handle = PK11_GetObjectHandle(PK11_TypeGeneric, object, nullptr);
  require(PK11_DestroyTokenObject(slot, handle), "PK11_DestroyTokenObject");
  // The library's own store says success also when the database could not be written.
  if (!readAttribute(object, CKA_CLASS).empty()) {
    throw CertificateFailure(errSecIO, "The certificate database could not be written.");
  }
}

/// Calls `use` with each object of one kind in the database.
template <class Use>
void forEachObject(PK11SlotInfo* slot, CK_OBJECT_CLASS kind, Use use) {
  PORT_SetError(0);
  const Owned<PK11GenericObject> first(PK11_FindGenericObjects(slot, kind));
  if (!first && PORT_GetError() != 0) failLast("PK11_FindGenericObjects");  // else there is none
  for (auto* at = first.get(); at != nullptr; at = PK11_GetNextGenericObject(at)) use(at);
}

/// The same for what is thought of one certificate. NSS itself keeps no more than one of these.
template <class Use>
void forEachTrust(PK11SlotInfo* slot, const SecCertificate& certificate, Use use) {
  const Bytes hash = digest(SEC_OID_SHA1, SHA1_LENGTH, certificate.der());
  forEachObject(slot, CKO_NSS_TRUST, [&](PK11GenericObject* object) {
    if (readAttribute(object, CKA_CERT_SHA1_HASH) == hash) use(object);
  });
}

void createTrust(PK11SlotInfo* slot, PK11GenericObject* certificate, const TrustByUse& trust) {
  CK_OBJECT_CLASS kind = CKO_NSS_TRUST;
  CK_BBOOL yes = CK_TRUE;
  CK_BBOOL no = CK_FALSE;
  const Bytes der = readAttribute(certificate, CKA_VALUE);
  Bytes issuer = readAttribute(certificate, CKA_ISSUER);
  Bytes serial = readAttribute(certificate, CKA_SERIAL_NUMBER);
  Bytes sha1 = digest(SEC_OID_SHA1, SHA1_LENGTH, der);
  Bytes md5 = digest(SEC_OID_MD5, MD5_LENGTH, der);
  std::array<CK_TRUST, trustUseCount> values{};
  std::ranges::transform(trust, values.begin(), valueOf);
  std::vector<CK_ATTRIBUTE> attributes{
      attribute(CKA_CLASS, kind),
      attribute(CKA_TOKEN, yes),
      attribute(CKA_ISSUER, issuer),
      attribute(CKA_SERIAL_NUMBER, serial),
      attribute(CKA_CERT_SHA1_HASH, sha1),
      attribute(CKA_CERT_MD5_HASH, md5),
      attribute(CKA_TRUST_STEP_UP_APPROVED, no),
  };
  for (std::size_t use = 0; use < trustUseCount; ++use) {
    attributes.push_back(attribute(trustAttributes.at(use), values.at(use)));
  }
  const Owned<PK11GenericObject> created(PK11_CreateGenericObject(
      slot, attributes.data(), static_cast<int>(attributes.size()), PR_TRUE));
  if (!created) failLast("PK11_CreateGenericObject");
}

}  // namespace

/// The library, the database, and the turn to use them.
class NssDatabase::Session {
 public:
  Session(const std::string& folder, Access access, std::chrono::nanoseconds limit)
      : processTurn_(
            [&] {
              return UniqueFd(retryInterrupted(
                  [&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
            },
            limit),
        turn_(NssTurn::shared()) {
    if (!processTurn_) throw heldElsewhere(databaseIs(folder), folder);
    // A context of our own, without a database: another user of NSS in this process keeps its.
    constexpr PRUint32 flags = NSS_INIT_READONLY | NSS_INIT_NOCERTDB | NSS_INIT_NOMODDB |
                               NSS_INIT_NOROOTINIT | NSS_INIT_OPTIMIZESPACE;
    context_.reset(NSS_InitContext("", "", "", "", nullptr, flags));
    if (!context_) failLast("NSS_InitContext");
    slot_.reset(SECMOD_OpenUserDB(parameters(folder, access).c_str()));
    // A writer was killed: only who may write can take back what it began.
    if (!slot_ && ::access((databaseFile(folder) + "-journal").c_str(), F_OK) == 0) {
      slot_.reset(SECMOD_OpenUserDB(parameters(folder, Access::write).c_str()));
    }
    if (!slot_) failLast("SECMOD_OpenUserDB");
    // A new database takes no trust before it has a password, be it an empty one.
    if (access == Access::write && PK11_NeedUserInit(slot()) == PR_TRUE) {
      require(PK11_InitPin(slot(), nullptr, ""), "PK11_InitPin");
    }
  }

  PK11SlotInfo* slot() const noexcept { return slot_.get(); }

 private:
  LockedFile processTurn_;  // a database that another process is just making can't be read
  std::lock_guard<NssTurn> turn_;
  Owned<NSSInitContext> context_;
  Owned<PK11SlotInfo> slot_;
};

bool NssDatabase::isIn(const std::string& folder) {
  return ::access(databaseFile(folder).c_str(), F_OK) == 0 || errno != ENOENT;
}

NssDatabase::NssDatabase(const std::string& folder, Access access,
                         std::chrono::steady_clock::time_point deadline) {
  // The library's own error for these says nothing.
  const std::string needed = isIn(folder) ? databaseFile(folder) : folder;
  if (::access(needed.c_str(), access == Access::read ? R_OK : R_OK | W_OK) != 0) {
    throw lastSystemError(fmt::format("access ({})", needed));
  }
  session_ = std::make_unique<Session>(folder, access,
                                       bounded(deadline - std::chrono::steady_clock::now()));
}

// The library waits for a database that is locked one second, and then says what it also says of
// one that is damaged.
void NssDatabase::with(const std::string& folder, Access access,
                       const std::function<void(NssDatabase&)>& use) {
  constexpr std::chrono::seconds patience(5);
  constexpr std::chrono::milliseconds pause(50);
  const auto deadline = deadlineAfter(patience);
  for (bool isFirst = true;; isFirst = false) {
    try {
      NssDatabase database(folder, access, deadline);
      return use(database);
    } catch (const CertificateFailure& failure) {
      if (failure.status().number != errSecIO) throw;
      const auto file = lockedFile(folder);
      // Who held it may have just finished.
      if (!file && !isFirst) throw;
      if (file && std::chrono::steady_clock::now() >= deadline) {
        throw heldElsewhere(databaseIs(folder), *file);
      }
    }
    std::this_thread::sleep_for(pause);
  }
}

NssDatabase::~NssDatabase() = default;

std::vector<CertificateItem> NssDatabase::certificates() const {
  std::vector<CertificateItem> items;
  forEachObject(session_->slot(), CKO_CERTIFICATE, [&](PK11GenericObject* object) {
    if (auto item = itemOf(object)) items.push_back(std::move(*item));
  });
  return items;
}

bool NssDatabase::has(const SecCertificate& certificate) const {
  const auto items = certificates();
  return std::ranges::find(items, certificate, &CertificateItem::certificate) != items.end();
}

void NssDatabase::add(const SecCertificate& certificate, const std::string& label) {
  if (has(certificate)) throw CertificateFailure(errSecDuplicateItem);
  SECItem der{siDERCertBuffer, const_cast<unsigned char*>(certificate.der().data()),  // NOLINT
              static_cast<unsigned>(certificate.der().size())};                       // only read
  const Owned<CERTCertificate> imported(
      CERT_NewTempCertificate(CERT_GetDefaultCertDB(), &der, nullptr, PR_FALSE, PR_TRUE));
  if (!imported) failLast("CERT_NewTempCertificate");
  const std::string name = uniqueName(label, labelSeparator, certificate);
  require(
      PK11_ImportCert(session_->slot(), imported.get(), CK_INVALID_HANDLE, name.c_str(), PR_FALSE),
      "PK11_ImportCert");
}

void NssDatabase::remove(const std::string& label) {
  PK11SlotInfo* const slot = session_->slot();
  bool isFound = false;
  forEachObject(slot, CKO_CERTIFICATE, [&](PK11GenericObject* object) {
    const auto item = itemOf(object);
    if (!item || item->label != label) return;
    isFound = true;
    // First: it would count again when somebody adds the certificate again.
    forEachTrust(slot, item->certificate, [&](PK11GenericObject* trust) { destroy(slot, trust); });
    destroy(slot, object);
  });
  if (!isFound) throw CertificateFailure(errSecItemNotFound);
}

TrustByUse NssDatabase::trust(const SecCertificate& certificate) const {
  TrustByUse trust{};
  forEachTrust(session_->slot(), certificate, [&](PK11GenericObject* object) {
    for (std::size_t use = 0; use < trustUseCount; ++use) {
      const Bytes bytes = readAttribute(object, trustAttributes.at(use));
      CK_TRUST value = CKT_NSS_TRUST_UNKNOWN;
      if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
      trust.at(use) = trustOf(value);
    }
  });
  return trust;
}

void NssDatabase::setTrust(const SecCertificate& certificate, const TrustByUse& trust) {
  PK11SlotInfo* const slot = session_->slot();
  if (!has(certificate)) throw CertificateFailure(errSecItemNotFound);
  if (PK11_NeedLogin(slot) == PR_TRUE) {
    throw CertificateFailure(errSecInteractionNotAllowed,
                             "The certificate database has a password; settings can be changed "
                             "with its own tools only.");
  }
  forEachTrust(slot, certificate, [&](PK11GenericObject* object) { destroy(slot, object); });
  if (trust == TrustByUse{}) return;
  forEachObject(slot, CKO_CERTIFICATE, [&](PK11GenericObject* object) {
    if (readAttribute(object, CKA_VALUE) == certificate.der()) createTrust(slot, object, trust);
  });
}

}  // namespace velum
