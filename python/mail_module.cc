// The Python face of our own delivery path: quillo.Mailer,
// quillo.compose_message and quillo.campaign_report.
//
//   mailer = quillo.Mailer(host="mail.example.test", port=587, tls="required",
//                          user="news", password=secret,
//                          from_address="news@example.test", from_name="Example News")
//   outcome = mailer.send("/srv/templates/welcome.txt", client, "Hello <!--FIRST-->")
//   if outcome["outcome"] != "accepted": print(outcome["reason"])
//   mailer.close()
//
// An outcome is a dict of plain values: "outcome" (accepted, deferred,
// refused or failed), "code" (the SMTP reply code, 0 when no server replied),
// "enhanced" (the enhanced status code, "" when none), "reply", "reason"
// (never empty), "message_id" and "recipient".
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "delivery/mailer.h"
#include "delivery/report.h"
#include "mail/address.h"
#include "platform/database.h"
#include "python_values.h"
#include "records/dmclients.h"

namespace quillo::python {

namespace py = pybind11;

namespace {

smtp::TlsMode ParseTlsMode(const std::string& text) {
  if (text == "required") return smtp::TlsMode::kRequired;
  if (text == "opportunistic") return smtp::TlsMode::kOpportunistic;
  if (text == "none") return smtp::TlsMode::kNone;
  if (text == "implicit") return smtp::TlsMode::kImplicit;
  throw py::value_error("tls must be required, opportunistic, none or implicit, not '" + text +
                        "'");
}

const dmclients& ClientOf(const ObjectPtr& object) {
  auto* client = dynamic_cast<const dmclients*>(object.get());
  if (client == nullptr) throw py::type_error("client must be a dmclients object");
  return *client;
}

py::dict OutcomeDict(const delivery::Delivery& d) {
  py::dict out;
  out["outcome"] = smtp::OutcomeName(d.outcome.kind);
  out["code"] = d.outcome.code;
  out["enhanced"] = d.outcome.enhanced;
  out["reply"] = d.outcome.reply;
  out["reason"] = d.outcome.reason;
  out["message_id"] = d.message_id;
  out["recipient"] = d.recipient;
  return out;
}

}  // namespace

void AddMailBindings(py::module_& m) {
  py::class_<delivery::Mailer>(m, "Mailer",
                               "Our own delivery path: standard messages over a reused SMTP "
                               "session, with a structured outcome per message.")
      .def(py::init([](const std::string& host, int port, const std::string& tls,
                       const std::string& user, const std::string& password,
                       const std::string& from_address, const std::string& from_name,
                       const std::string& ca_file, const std::string& helo,
                       bool allow_plaintext_auth, std::optional<int> timeout,
                       const std::string& dkim_key, const std::string& dkim_selector,
                       const std::string& dkim_domain) {
             delivery::Account account;
             account.session.host = host;
             account.session.port = port;
             account.session.tls = ParseTlsMode(tls);
             account.session.user = user;
             account.session.password = password;
             account.session.ca_file = ca_file;
             account.session.helo_name = helo;
             account.session.allow_plaintext_auth = allow_plaintext_auth;
             if (timeout) {
               smtp::OverrideTimeouts(account.session.timeouts, std::chrono::seconds(*timeout));
             }
             account.from = {from_name, from_address};
             if (!dkim_key.empty()) {
               try {
                 account.dkim = mail::LoadDkimKey(
                     dkim_key,
                     dkim_domain.empty() ? std::string(mail::DomainOf(from_address)) : dkim_domain,
                     dkim_selector);
               } catch (const mail::DkimError& e) {
                 throw py::value_error(e.what());
               }
             }
             return std::make_unique<delivery::Mailer>(std::move(account));
           }),
           py::kw_only(), py::arg("host"), py::arg("port") = 25, py::arg("tls") = "opportunistic",
           py::arg("user") = "", py::arg("password") = "", py::arg("from_address"),
           py::arg("from_name") = "", py::arg("ca_file") = "", py::arg("helo") = "",
           py::arg("allow_plaintext_auth") = false, py::arg("timeout") = py::none(),
           py::arg("dkim_key") = "", py::arg("dkim_selector") = "", py::arg("dkim_domain") = "")
      .def(
          "send",
          [](delivery::Mailer& mailer, const std::string& template_path, const ObjectPtr& client,
             const std::string& subject) {
            const dmclients& record = ClientOf(client);
            delivery::Delivery d;
            {
              py::gil_scoped_release release;
              std::lock_guard<std::recursive_mutex> serialised(LibraryLock());
              d = mailer.Send(template_path, record, subject);
            }
            return OutcomeDict(d);
          },
          py::arg("template"), py::arg("client"), py::arg("subject") = "",
          "Composes the template for the client and delivers it; returns the outcome dict.")
      .def("close", &delivery::Mailer::Close, "Ends every open session (QUIT).");

  m.def(
      "compose_message",
      [](const std::string& template_path, const ObjectPtr& client, const std::string& subject,
         const std::string& from_address, const std::string& from_name) {
        try {
          mail::ComposedMessage composed = delivery::Mailer::Compose(
              template_path, ClientOf(client), subject, {from_name, from_address});
          return py::bytes(composed.data);
        } catch (const std::exception& e) {
          throw py::value_error(e.what());
        }
      },
      py::arg("template"), py::arg("client"), py::arg("subject") = "", py::kw_only(),
      py::arg("from_address"), py::arg("from_name") = "",
      "The message the delivery path would send for the client, as bytes (not dot-stuffed).");

  m.def(
      "campaign_report",
      [](const ObjectPtr& connection, const std::string& campaign_id, const std::string& last_day,
         int days) {
        auto conn = std::dynamic_pointer_cast<Connection>(connection);
        if (!conn) throw py::type_error("connection must be a Connection");
        delivery::CampaignReport r;
        {
          py::gil_scoped_release release;
          std::lock_guard<std::recursive_mutex> serialised(LibraryLock());
          r = delivery::BuildCampaignReport(conn, campaign_id, last_day, days);
        }
        static const char* const kNames[delivery::kLedgerStates] = {
            "queued", "accepted", "deferred", "refused", "failed", "in_doubt", "suppressed"};
        auto counts = [](const std::array<long, delivery::kLedgerStates>& c) {
          py::dict d;
          for (std::size_t i = 0; i < delivery::kLedgerStates; ++i) d[kNames[i]] = c[i];
          return d;
        };
        py::list day_list, funnel;
        for (const auto& d : r.days) {
          py::dict row = counts(d.counts);
          row["day"] = d.day;
          row["unsubscribed"] = d.unsubscribed;
          row["bounced"] = d.bounced;
          day_list.append(row);
        }
        for (const auto& item : r.funnel) {
          py::dict row;
          row["item_id"] = item.item_id;
          row["description"] = item.description;
          row["interval"] = item.interval;
          row["clients"] = item.clients;
          funnel.append(row);
        }
        py::dict out;
        out["campaign_id"] = r.campaign_id;
        out["campaign_name"] = r.campaign_name;
        out["first_day"] = r.first_day;
        out["last_day"] = r.last_day;
        out["days"] = day_list;
        out["totals"] = counts(r.totals);
        out["enrolled"] = r.enrolled;
        out["funnel"] = funnel;
        out["html"] = delivery::CampaignReportHtml(r);
        return out;
      },
      py::arg("connection"), py::arg("campaign_id"), py::arg("last_day"), py::arg("days") = 30,
      "A campaign's messages by campaign date and state, and how far its clients got, as plain "
      "values (with the HTML report under \"html\").");
}

}  // namespace quillo::python
