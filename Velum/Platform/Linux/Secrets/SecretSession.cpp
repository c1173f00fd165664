#include "Velum/Platform/Linux/Secrets/SecretSession.h"

// libsecret's calls on object paths: declared apart, exported and unchanged since version 0.18.
#define SECRET_WITH_UNSTABLE 1
#define SECRET_API_SUBJECT_TO_CHANGE 1
#include <libsecret/secret.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <string_view>

#include "Velum/Base/AtFork.h"

namespace velum {
namespace {

constexpr const char* busName = "org.freedesktop.secrets";
constexpr const char* itemInterface = "org.freedesktop.Secret.Item";
constexpr const char* collectionInterface = "org.freedesktop.Secret.Collection";
constexpr const char* schemaAttribute = "xdg:schema";

struct GDeleter {
  void operator()(GVariant* variant) const noexcept { g_variant_unref(variant); }
  void operator()(GHashTable* table) const noexcept { g_hash_table_unref(table); }
  void operator()(SecretValue* value) const noexcept { secret_value_unref(value); }
  void operator()(char* text) const noexcept { g_free(text); }
  void operator()(char** texts) const noexcept { g_strfreev(texts); }
  void operator()(GMainContext* context) const noexcept { g_main_context_unref(context); }
  void operator()(GDBusConnection* connection) const noexcept { g_object_unref(connection); }
  void operator()(SecretService* service) const noexcept { g_object_unref(service); }
  void operator()(GAsyncResult* result) const noexcept { g_object_unref(result); }
};
template <class T>
using GPointer = std::unique_ptr<T, GDeleter>;
using GText = GPointer<char>;
using GTexts = GPointer<char*>;

/// The statuses of errors. Whatever is not listed means that the service can't be talked to.
SecretStatus statusOf(const GError& error) {
  struct Row {
    GQuark (*domain)();
    int code;
    SecretStatus status;
  };
  static constexpr std::array rows{
      Row{secret_error_get_quark, SECRET_ERROR_IS_LOCKED, errSecInteractionNotAllowed},
      Row{secret_error_get_quark, SECRET_ERROR_ALREADY_EXISTS, errSecDuplicateItem},
      Row{g_io_error_quark, G_IO_ERROR_TIMED_OUT, errSecTimedOut},
      Row{g_io_error_quark, G_IO_ERROR_CANCELLED, errSecUserCanceled},
      Row{g_dbus_error_quark, G_DBUS_ERROR_TIMEOUT, errSecTimedOut},
      Row{g_dbus_error_quark, G_DBUS_ERROR_TIMED_OUT, errSecTimedOut},
      Row{g_dbus_error_quark, G_DBUS_ERROR_ACCESS_DENIED, errSecErrnoBase + EACCES},
      Row{g_dbus_error_quark, G_DBUS_ERROR_NO_MEMORY, errSecErrnoBase + ENOMEM},
      Row{g_dbus_error_quark, G_DBUS_ERROR_LIMITS_EXCEEDED, errSecErrnoBase + E2BIG},
  };
  for (const Row& row : rows) {
    if (g_error_matches(&error, row.domain(), row.code) != FALSE) return row.status;
  }
  return errSecNotAvailable;
}

bool isStale(const GError& error) {
  if (g_error_matches(&error, SECRET_ERROR, SECRET_ERROR_NO_SUCH_OBJECT) != FALSE ||
      g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT) != FALSE ||
      g_error_matches(&error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD) != FALSE) {
    return true;
  }
  const GText name(g_dbus_error_get_remote_error(&error));
  return name && std::string_view(name.get()) == "org.freedesktop.Secret.Error.NoSession";
}

/// Where a GLib call leaves its error.
class ErrorSlot {
 public:
  ErrorSlot() = default;
  ErrorSlot(const ErrorSlot&) = delete;
  ErrorSlot& operator=(const ErrorSlot&) = delete;
  ~ErrorSlot() { g_clear_error(&error_); }

  operator GError**() noexcept { return &error_; }  // NOLINT: stands for the parameter
  /// Throws what the error stands for, if there is one.
  void check() const {
    if (error_ == nullptr) return;
    if (isStale(*error_)) throw StaleSession();
    throw SecretFailure(statusOf(*error_));
  }

 private:
  GError* error_ = nullptr;
};

/// True in the process whose bus thread lives, which is the first that asks.
bool hasBusThread() {
  static std::atomic<std::int64_t> owner{-1};
  const std::int64_t self = forkGeneration();
  std::int64_t seen = -1;
  return owner.compare_exchange_strong(seen, self) || seen == self;
}

GPointer<GDBusConnection> connect(const std::string& address) {
  // Asking for the domain registers it: from here on, the service's errors are told apart.
  if (!hasBusThread() || secret_error_get_quark() == 0) throw SecretFailure(errSecNotAvailable);
  ErrorSlot error;
  GPointer<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, error));
  error.check();
  return connection;
}

/// libsecret always takes the application's connection, and lets only a derived type have its own
/// way: while an object is being constructed, its connection can still be replaced.
thread_local GDBusConnection* connectionOfNextService = nullptr;

GObject* constructService(GType type, guint count, GObjectConstructParam* parameters) {
  auto* const base = static_cast<GObjectClass*>(g_type_class_peek(SECRET_TYPE_SERVICE));
  GObject* const object = base->constructor(type, count, parameters);
  g_object_set(
      object, "g-bus-type", G_BUS_TYPE_NONE, "g-connection", connectionOfNextService, "g-flags",
      G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES | G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS,
      nullptr);
  return object;
}

GType serviceType() {
  static const GType type = g_type_register_static_simple(
      SECRET_TYPE_SERVICE, "VelumSecretService", sizeof(SecretServiceClass),
      [](gpointer self, gpointer) {
        static_cast<GObjectClass*>(self)->constructor = constructService;
      },
      sizeof(SecretService), nullptr, static_cast<GTypeFlags>(0));
  return type;
}

const SecretSchema& schema() {
  static const SecretSchema instance = [] {
    SecretSchema made{};
    made.name = SecretSession::schemaName;
    made.flags = SECRET_SCHEMA_NONE;
    std::size_t count = 0;
    for (const char* name : {"service", "account", "accessGroup"}) {
      made.attributes[count++] = {
          name, SECRET_SCHEMA_ATTRIBUTE_STRING};  // NOLINT(*-constant-array-index)
    }
    return made;
  }();
  return instance;
}

/// The table borrows the texts.
GPointer<GHashTable> tableOf(const SecretSession::Attributes& attributes) {
  GPointer<GHashTable> table(g_hash_table_new(g_str_hash, g_str_equal));
  for (const auto& [name, value] : attributes) {
    g_hash_table_insert(table.get(), const_cast<char*>(name.c_str()),  // NOLINT
                        const_cast<char*>(value.c_str()));             // NOLINT
  }
  return table;
}

void setProperty(GHashTable* properties, const char* name, GVariant* value) {
  g_hash_table_insert(properties, const_cast<char*>(name), g_variant_ref_sink(value));  // NOLINT
}

GPointer<GHashTable> makeProperties() {
  return GPointer<GHashTable>(g_hash_table_new_full(
      g_str_hash, g_str_equal, nullptr,
      [](gpointer value) { g_variant_unref(static_cast<GVariant*>(value)); }));
}

GVariant* variantOf(const SecretSession::Attributes& attributes) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
  for (const auto& [name, value] : attributes) {
    g_variant_builder_add(&builder, "{ss}", name.c_str(), value.c_str());
  }
  g_variant_builder_add(&builder, "{ss}", schemaAttribute, SecretSession::schemaName);
  return g_variant_builder_end(&builder);
}

/// Password managers show what is said to be text.
GPointer<SecretValue> valueOf(const SecretBytes& bytes) {
  const char* const start = reinterpret_cast<const char*>(bytes.data());  // NOLINT: bytes are bytes
  const bool isText = g_utf8_validate_len(start, bytes.size(), nullptr) != FALSE;
  return GPointer<SecretValue>(
      secret_value_new(start, static_cast<gssize>(bytes.size()),
                       isText ? "text/plain" : "application/octet-stream"));
}

/// The outcome of a call that prompts. libsecret's own waiting for it leaks each prompt.
class Answer {
 public:
  explicit Answer(GMainContext* context) noexcept : context_(context) {}

  static void take(GObject* /*source*/, GAsyncResult* result, gpointer self) {
    static_cast<Answer*>(self)->result_.reset(static_cast<GAsyncResult*>(g_object_ref(result)));
  }
  GAsyncResult* wait() const {
    while (!result_) g_main_context_iteration(context_, TRUE);
    return result_.get();
  }

 private:
  GMainContext* context_;
  GPointer<GAsyncResult> result_;
};

std::vector<std::string> textsOf(const GTexts& texts) {
  std::vector<std::string> result;
  for (char** text = texts.get(); text != nullptr && *text != nullptr; ++text) {
    result.emplace_back(*text);
  }
  return result;
}

}  // namespace

struct SecretSession::Handles {
  GPointer<GMainContext> context{g_main_context_new()};
  GPointer<GDBusConnection> connection;
  GPointer<SecretService> service;
  std::string owner;  // the service's process, as the bus names it

  Handles() { g_main_context_push_thread_default(context.get()); }
  Handles(const Handles&) = delete;
  Handles& operator=(const Handles&) = delete;
  ~Handles() {
    service.reset();
    connection.reset();
    handleEvents();  // what they left to be freed later
    g_main_context_pop_thread_default(context.get());
  }

  /// What has come in, without waiting for more.
  void handleEvents() const {
    while (g_main_context_iteration(context.get(), FALSE) != FALSE) continue;
  }

  std::string currentOwner() const {
    const GText name(g_dbus_proxy_get_name_owner(G_DBUS_PROXY(service.get())));
    return name ? name.get() : "";
  }

  GPointer<GVariant> call(const char* name, const char* path, const char* interface,
                          const char* method, GVariant* arguments, const char* type) const {
    ErrorSlot error;
    GPointer<GVariant> answer(g_dbus_connection_call_sync(
        connection.get(), name, path, interface, method, arguments, G_VARIANT_TYPE(type),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error));
    error.check();
    return answer;
  }

  GPointer<GVariant> property(const std::string& path, const char* interface, const char* name,
                              const char* type) const {
    const auto answer = call(busName, path.c_str(), "org.freedesktop.DBus.Properties", "Get",
                             g_variant_new("(ss)", interface, name), "(v)");
    GVariant* inner = nullptr;
    g_variant_get(answer.get(), "(v)", &inner);
    GPointer<GVariant> value(inner);
    if (g_variant_is_of_type(inner, G_VARIANT_TYPE(type)) == FALSE) {
      throw SecretFailure(errSecNotAvailable);
    }
    return value;
  }
};

bool SecretSession::isText(const std::string& text) {
  return g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
}

SecretSession::SecretSession(std::string busAddress)
    : busAddress_(std::move(busAddress)), handles_(std::make_unique<Handles>()) {
  handles_->connection = connect(busAddress_);
}

SecretSession::~SecretSession() = default;

bool SecretSession::isCurrent() {
  handles_->handleEvents();
  if (g_dbus_connection_is_closed(handles_->connection.get()) != FALSE) return false;
  return !handles_->service || handles_->currentOwner() == handles_->owner;
}

bool SecretSession::isOffered() {
  constexpr const char* bus = "org.freedesktop.DBus";
  constexpr const char* path = "/org/freedesktop/DBus";
  const auto owned =
      handles_->call(bus, path, bus, "NameHasOwner", g_variant_new("(s)", busName), "(b)");
  gboolean isOwned = FALSE;
  g_variant_get(owned.get(), "(b)", &isOwned);
  if (isOwned != FALSE) return true;
  const auto startable = handles_->call(bus, path, bus, "ListActivatableNames", nullptr, "(as)");
  char** names = nullptr;
  g_variant_get(startable.get(), "(^as)", &names);
  const GTexts owner(names);
  return g_strv_contains(names, busName) != FALSE;
}

void SecretSession::open() {
  if (handles_->service) return;
  ErrorSlot error;
  connectionOfNextService = handles_->connection.get();
  handles_->service.reset(static_cast<SecretService*>(g_initable_new(
      serviceType(), nullptr, error, "flags", SECRET_SERVICE_OPEN_SESSION, nullptr)));
  connectionOfNextService = nullptr;
  error.check();
  handles_->owner = handles_->currentOwner();
}

SecretMatches SecretSession::search(const Attributes& attributes) {
  ErrorSlot error;
  char** unlocked = nullptr;
  char** locked = nullptr;
  secret_service_search_for_dbus_paths_sync(handles_->service.get(), &schema(),
                                            tableOf(attributes).get(), nullptr, &unlocked, &locked,
                                            error);
  const GTexts unlockedOwner(unlocked);
  const GTexts lockedOwner(locked);
  error.check();
  return {textsOf(unlockedOwner), textsOf(lockedOwner)};
}

SecretBytes SecretSession::secret(const std::string& item) {
  const char* const session = secret_service_get_session_dbus_path(handles_->service.get());
  const auto answer = handles_->call(busName, item.c_str(), itemInterface, "GetSecret",
                                     g_variant_new("(o)", session), "((oayays))");
  const GPointer<GVariant> encoded(g_variant_get_child_value(answer.get(), 0));
  const GPointer<SecretValue> value(
      secret_service_decode_dbus_secret(handles_->service.get(), encoded.get()));
  if (!value) throw StaleSession();  // of another session
  gsize size = 0;
  const char* const bytes = secret_value_get(value.get(), &size);
  return secretBytes({bytes, size});
}

void SecretSession::setSecret(const std::string& item, const SecretBytes& value) {
  GVariant* const encoded =
      secret_service_encode_dbus_secret(handles_->service.get(), valueOf(value).get());
  handles_->call(busName, item.c_str(), itemInterface, "SetSecret",
                 g_variant_new("(@(oayays))", encoded), "()");
}

void SecretSession::createItem(const std::string& collection, const std::string& label,
                               const Attributes& attributes, const SecretBytes& value) {
  const auto properties = makeProperties();
  setProperty(properties.get(), "org.freedesktop.Secret.Item.Label",
              g_variant_new_string(label.c_str()));
  setProperty(properties.get(), "org.freedesktop.Secret.Item.Attributes", variantOf(attributes));
  ErrorSlot error;
  // Of two processes that add the same item at once, the second replaces: never two items.
  const GText path(secret_service_create_item_dbus_path_sync(
      handles_->service.get(), collection.c_str(), properties.get(), valueOf(value).get(),
      SECRET_ITEM_CREATE_REPLACE, nullptr, error));
  error.check();
  if (!path) throw SecretFailure(errSecUserCanceled);
}

void SecretSession::deleteItem(const std::string& item) {
  ErrorSlot error;
  const bool isDeleted = secret_service_delete_item_dbus_path_sync(
                             handles_->service.get(), item.c_str(), nullptr, error) != FALSE;
  error.check();
  if (!isDeleted) throw SecretFailure(errSecUserCanceled);
}

SecretSession::Attributes SecretSession::attributes(const std::string& item) {
  const auto table = handles_->property(item, itemInterface, "Attributes", "a{ss}");
  Attributes result;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, table.get());
  const char* name = nullptr;
  const char* value = nullptr;
  while (g_variant_iter_next(&iterator, "{&s&s}", &name, &value) != FALSE) {
    result.emplace_back(name, value);
  }
  return result;
}

std::optional<std::string> SecretSession::defaultCollection() {
  ErrorSlot error;
  const GText path(
      secret_service_read_alias_dbus_path_sync(handles_->service.get(), "default", nullptr, error));
  error.check();
  if (!path) return std::nullopt;  // the service says "/", libsecret makes it null
  return path.get();
}

bool SecretSession::isLocked(const std::string& collection) {
  return g_variant_get_boolean(
             handles_->property(collection, collectionInterface, "Locked", "b").get()) != FALSE;
}

bool SecretSession::unlock(const std::vector<std::string>& paths) {
  std::vector<const char*> texts;
  texts.reserve(paths.size() + 1);
  for (const std::string& path : paths) texts.push_back(path.c_str());
  texts.push_back(nullptr);
  Answer answer(handles_->context.get());
  secret_service_unlock_dbus_paths(handles_->service.get(), texts.data(), nullptr, Answer::take,
                                   &answer);
  ErrorSlot error;
  char** unlocked = nullptr;
  const int count = secret_service_unlock_dbus_paths_finish(handles_->service.get(), answer.wait(),
                                                            &unlocked, error);
  const GTexts owner(unlocked);
  error.check();
  return count > 0;
}

std::optional<std::string> SecretSession::createDefaultCollection(const std::string& label) {
  const auto properties = makeProperties();
  setProperty(properties.get(), "org.freedesktop.Secret.Collection.Label",
              g_variant_new_string(label.c_str()));
  Answer answer(handles_->context.get());
  secret_service_create_collection_dbus_path(handles_->service.get(), properties.get(), "default",
                                             SECRET_COLLECTION_CREATE_NONE, nullptr, Answer::take,
                                             &answer);
  ErrorSlot error;
  const GText path(secret_service_create_collection_dbus_path_finish(handles_->service.get(),
                                                                     answer.wait(), error));
  error.check();
  if (!path) return std::nullopt;
  return path.get();
}

}  // namespace velum
