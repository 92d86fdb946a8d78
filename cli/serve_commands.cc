// quillo serve: the unsubscribe endpoint (RFC 8058 one-click POST, a GET
// with a confirmation page that needs no script) and a health check.
#include <httplib.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include "commands.h"
#include "delivery/unsubscribe.h"

namespace quillo::cli {

namespace {

constexpr const char* kPage =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head><meta charset=\"utf-8\"><title>Unsubscribe</title>"
    "</head>\n<body>\n";

void BadRequest(httplib::Response& res) {
  // Never why: a prober learns nothing from the answer.
  res.status = 400;
  res.set_content("Bad request\n", "text/plain; charset=utf-8");
}

}  // namespace

void CmdServe(const GlobalOptions& g, const ServeOptions& o) {
  size_t colon = o.listen.rfind(':');
  if (colon == std::string::npos) throw CommandError("--listen wants HOST:PORT");
  std::string host = o.listen.substr(0, colon);
  int port = 0;
  try {
    port = std::stoi(o.listen.substr(colon + 1));
  } catch (const std::exception&) {
    port = -1;
  }
  if (host.empty() || port < 0 || port > 65535) throw CommandError("--listen wants HOST:PORT");

  Store store(g.db);
  auto connection = store.database();
  const std::string key = delivery::UnsubscribeKey(*connection);
  std::mutex database;  // The handlers run on several threads; the connection is one.

  httplib::Server server;
  server.Get("/health", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("ok\n", "text/plain; charset=utf-8");
  });
  server.Get(R"(/u/.*)", [&](const httplib::Request& req, httplib::Response& res) {
    if (!delivery::CheckUnsubscribePath(key, req.path)) return BadRequest(res);
    res.set_content(std::string(kPage) +
                        "<h1>Unsubscribe</h1>\n<p>You will get no more mail from this list.</p>\n"
                        // No action: the form posts to the page's own address, whatever
                        // prefix a web server in front maps to this one.
                        "<form method=\"post\">\n<input type=\"hidden\" name=\"List-Unsubscribe\" "
                        "value=\"One-Click\">\n<button type=\"submit\">Unsubscribe</button>\n"
                        "</form>\n</body>\n</html>\n",
                    "text/html; charset=utf-8");
  });
  server.Post(R"(/u/.*)", [&](const httplib::Request& req, httplib::Response& res) {
    auto target = delivery::CheckUnsubscribePath(key, req.path);
    if (!target) return BadRequest(res);
    bool recorded;
    {
      std::lock_guard<std::mutex> lock(database);
      recorded = delivery::RecordUnsubscribe(*connection, *target);
    }
    if (!recorded) return BadRequest(res);
    res.set_content(std::string(kPage) +
                        "<h1>Unsubscribed</h1>\n<p>You will get no more mail from this list.</p>\n"
                        "</body>\n</html>\n",
                    "text/html; charset=utf-8");
  });

  if (port == 0) {
    port = server.bind_to_any_port(host.c_str());
    if (port < 0) throw CommandError("cannot listen on " + o.listen);
  } else if (!server.bind_to_port(host.c_str(), port)) {
    throw CommandError("cannot listen on " + o.listen);
  }
  std::printf("listening on http://%s:%d\n", host.c_str(), port);
  std::fflush(stdout);
  std::thread stopper;
  if (o.seconds > 0) {
    stopper = std::thread([&server, seconds = o.seconds] {
      std::this_thread::sleep_for(std::chrono::seconds(seconds));
      server.stop();
    });
  }
  server.listen_after_bind();
  if (stopper.joinable()) stopper.join();
}

}  // namespace quillo::cli
