// vorntesk-storekit: plays the host for the AppleStoreKitService on a simulated App Store.
// It loads a .storekit configuration into the process's LocalStore, registers the service
// through the library's exported C function, and speaks JSON Lines on stdin/stdout.
#include "bridge/register_service.h"
#include "host_driver.h"
#include "platform/system_version.h"
#include "appstore/local_store.h"
#include "appstore/server/app_store_server.h"
#include "appstore/server/notification_sender.h"
#include "appstore/store_controls.h"

#include <filesystem>
#include <charconv>
#include <chrono>
#include <fstream>
#include <iostream>
#include <string>

namespace {

using appstore::storeControlHelp;

void printHelp(std::ostream& out) {
  out << R"(Usage: vorntesk-storekit [--config FILE.storekit] [--state FILE] [--environment NAME]
                         [--export-root FILE] [--os-version X.Y] [--transcript]
                         [--server [HOST:]PORT --api-key FILE.p8 --key-id ID --issuer-id ID]
                         [--notifications-url URL] [--allow-remote-manager]

Runs the AppleStoreKitService against a simulated App Store and speaks JSON Lines:
one JSON object per line on standard input, one per line on standard output.

Options:
  --config FILE     the Xcode StoreKit configuration to serve (default: the bundled
                    sample, examples/SampleStore.storekit)
  --state FILE      keep the store's ledger (transactions, subscriptions, the unfinished
                    set, the signing identity, the clock) in FILE, created if missing, so
                    that it survives relaunches and kills; without it the ledger is in
                    memory and gone at exit
  --environment NAME
                    the environment written into everything the store signs: Xcode
                    (default) or Sandbox
  --export-root FILE
                    write the root certificate the store signs under (PEM) to FILE at
                    start, for a server to pin
  --server [HOST:]PORT
                    serve the App Store Server API over HTTP from the same ledger, on
                    HOST (default 127.0.0.1) and PORT (0: a free one; the "server"
                    control answers the URL)
  --allow-remote-manager
                    let the Transaction Manager page (the server's "/") run the store's
                    controls when the server is bound to an address other than loopback;
                    without it they answer only on loopback
  --api-key FILE.p8 the in-app-purchase key whose signed tokens the server accepts
                    (PKCS#8 PEM, as App Store Connect gives it); created if missing
  --key-id ID       that key's id (the tokens' "kid")
  --issuer-id ID    the issuer id (the tokens' "iss")
  --notifications-url URL
                    send App Store Server Notifications V2 for every change of the ledger
                    to URL (POST {"signedPayload": ...}); a failed delivery is retried 1,
                    12, 24, 48 and 72 hours later on the store clock, and what is not yet
                    delivered at exit goes out after the next launch with the same --state
  --os-version X.Y  the system version the service converts for (default 26.0)
  --transcript      write a transcript for people instead of JSON Lines: requests
                    echoed, answers and events marked, long strings shortened
  --help            this text

Lines in:
  {"id":ID,"call":METHOD,"payload":VALUE}
      calls METHOD with VALUE written compactly as the payload text ({} if absent), and
      waits for the answer before reading the next line.
      {"id":1,"call":"GetProducts","payload":{"productIds":["com.example.pro.monthly"]}}
  {"id":ID,"call":METHOD,"payloadText":TEXT}
      passes TEXT exactly as the payload, for payloads that are not valid JSON.
      {"id":2,"call":"Purchase","payloadText":"{not json"}
  {"id":ID,"call":METHOD,...,"detach":true}
      does not wait: the answer comes whenever it is ready.
  {"id":ID,"callSync":METHOD,"payload":VALUE}
      the synchronous entry (the service has no synchronous methods).
  {"id":ID,"cancel":N}
      passes cancellation of callback N to the service.
  {"id":ID,"store":CONTROL,...}
      runs a control of the simulated store, with its arguments as members (below).
  {"note":TEXT}
      a comment: no answer (a heading in the transcript).
  Blank lines are skipped.

Lines out:
  {"id":ID,"envelope":ENVELOPE}     the service's answer, inserted verbatim
  {"id":ID,"ok":true,...}           a control's result
  {"event":NAME,"payload":PAYLOAD}  an event from the service, payload verbatim
  {"id":ID,"error":MESSAGE}         a line that could not be understood ("id":null when
                                    it has none); the driver goes on with the next line

At the end of input the driver waits for detached calls and exits with status 0.

Methods: GetProducts, Purchase, StartTransactionObserver, StopTransactionObserver,
GetCurrentEntitlements, GetAllTransactions, GetUnfinishedTransactions, FinishTransaction,
Sync, GetStorefront.

Store controls:
)";
  for (const auto& control : storeControlHelp()) {
    out << "  " << control.name;
    if (!control.arguments.empty()) out << "  (" << control.arguments << ")";
    out << "\n      " << control.summary << "\n      " << control.example << "\n";
  }
}

std::string defaultConfiguration() {
  for (const char* candidate : {VORNTESK_SAMPLE_CONFIG, VORNTESK_INSTALLED_SAMPLE_CONFIG}) {
    if (std::filesystem::exists(candidate)) return candidate;
  }
  return VORNTESK_SAMPLE_CONFIG;
}

}  // namespace

int main(int argc, char** argv) {
  std::string configuration = defaultConfiguration();
  std::string statePath;
  std::string environment = "Xcode";
  std::string exportRoot;
  std::string serverAddress, apiKey, keyID, issuerID, notificationsURL;
  bool remoteManager = false;
  auto output = vorntesk_storekit::HostDriver::Output::protocol;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--help" || argument == "-h") {
      printHelp(std::cout);
      return 0;
    }
    if (argument == "--transcript") {
      output = vorntesk_storekit::HostDriver::Output::transcript;
      continue;
    }
    if (argument == "--allow-remote-manager") {
      remoteManager = true;
      continue;
    }
    if ((argument == "--config" || argument == "--os-version" || argument == "--state" ||
         argument == "--environment" || argument == "--export-root" || argument == "--server" ||
         argument == "--api-key" || argument == "--key-id" || argument == "--issuer-id" ||
         argument == "--notifications-url") &&
        i + 1 < argc) {
      const std::string value = argv[++i];
      if (argument == "--server") {
        serverAddress = value;
      } else if (argument == "--notifications-url") {
        notificationsURL = value;
      } else if (argument == "--api-key") {
        apiKey = value;
      } else if (argument == "--key-id") {
        keyID = value;
      } else if (argument == "--issuer-id") {
        issuerID = value;
      } else if (argument == "--config") {
        configuration = value;
      } else if (argument == "--state") {
        statePath = value;
      } else if (argument == "--environment") {
        environment = value;
      } else if (argument == "--export-root") {
        exportRoot = value;
      } else if (const auto version = platform::SystemVersion::parse(value)) {
        platform::SystemVersion::set(*version);
      } else {
        std::cerr << "vorntesk-storekit: --os-version wants a version such as 17.2, not \"" << value
                  << "\"\n";
        return 2;
      }
      continue;
    }
    std::cerr << "vorntesk-storekit: unknown argument \"" << argument << "\" (see --help)\n";
    return 2;
  }

  std::unique_ptr<appstore::server::AppStoreServer> server;
  std::unique_ptr<appstore::server::NotificationSender> sender;
  try {
    auto loaded = appstore::StoreConfiguration::load(configuration);
    auto store = statePath.empty() ? appstore::LocalStore::create(std::move(loaded))
                                   : appstore::LocalStore::open(statePath, std::move(loaded));
    store->setEnvironment(environment);
    if (!exportRoot.empty()) {
      std::ofstream out(exportRoot, std::ios::binary | std::ios::trunc);
      out << store->signingAuthority().rootCertificatePEM();
      if (!out.flush()) throw std::runtime_error("cannot write the root certificate to " + exportRoot);
    }
    if (!serverAddress.empty()) {
      if (apiKey.empty() || keyID.empty() || issuerID.empty()) {
        std::cerr << "vorntesk-storekit: --server needs --api-key, --key-id and --issuer-id\n";
        return 2;
      }
      appstore::server::ServerOptions options;
      const auto colon = serverAddress.rfind(':');
      if (colon != std::string::npos) options.host = serverAddress.substr(0, colon);
      const auto portText = colon == std::string::npos ? serverAddress : serverAddress.substr(colon + 1);
      int port = -1;
      const auto [end, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
      if (ec != std::errc() || end != portText.data() + portText.size() || port < 0 || port > 65535) {
        std::cerr << "vorntesk-storekit: --server wants [HOST:]PORT, not \"" << serverAddress << "\"\n";
        return 2;
      }
      options.port = port;
      options.managerFromAnywhere = remoteManager;
      options.key = appstore::server::InAppPurchaseKey::loadOrCreate(apiKey, keyID, issuerID);
      server = appstore::server::AppStoreServer::start(store, std::move(options));
    }
    if (!notificationsURL.empty()) {
      store->setNotificationsURL(notificationsURL);
      sender = appstore::server::NotificationSender::start(store);
    }
    appstore::LocalStore::setShared(std::move(store));
  } catch (const std::exception& error) {
    std::cerr << "vorntesk-storekit: " << error.what() << "\n";
    return 1;
  }

  std::ios::sync_with_stdio(false);
  // Reading stdin must not flush stdout behind the writer's lock: answers are written from
  // other threads while the next line is being read.
  std::cin.tie(nullptr);
  vorntesk_storekit::LineWriter writer(std::cout);
  vorntesk_storekit::HostDriver driver(writer, output);
  Vorn_Tesk_AppleStoreKitService_Register();
  driver.run(std::cin);
  server.reset();
  // What the last lines made goes out before the process does (undelivered ones stay in a
  // state file for the next launch).
  if (sender) sender->drain(std::chrono::seconds(5));
  sender.reset();
  // The ledger closes with the store: SQLite folds its write-ahead log back into the state
  // file, which then holds everything by itself (a file copied after exit is complete).
  appstore::LocalStore::setShared(nullptr);
  return 0;
}
