// quillo.tick: the daily job from Python, the same code as `quillo tick`.
//
//   result = quillo.tick("sqlite:/srv/quillo/quillo.db", date="2026-03-04",
//                        smtp="smtp://127.0.0.1:2525", from_address="news@example.test")
//   for event in result["events"]:
//       print(event["campaign"], event["date"], event["status"], event["detail"])
//
// The result is a dict of plain values: "events" (a list of dicts, one per
// campaign and date, with "campaign", "date", "status", "detail",
// "kept_queue", and the counts "messages", "sent", "refused", "failed",
// "deferred", "in_doubt", "skipped" and "suppressed" when the date was sent, or
// "messages" alone for a dry run), "runs", "not_delivered" and "problems".
#include <pybind11/pybind11.h>

#include <mutex>
#include <string>

#include "commands.h"
#include "python_values.h"

namespace quillo::python {

namespace py = pybind11;

void AddTickBindings(py::module_& m) {
  m.def(
      "tick",
      [](const std::string& db, const std::string& date, int catch_up, bool dry_run,
         const std::string& account, const std::string& smtp, const std::string& tls,
         const std::string& from_address, const std::string& from_name, const std::string& helo,
         int timeout, bool allow_plaintext_auth, const std::string& ca_file, int connections,
         const std::string& rate, const std::string& domain_rate, const std::string& retry_for) {
        cli::GlobalOptions g;
        g.db = db;
        cli::TickOptions t;
        t.date = date;
        t.catch_up = catch_up;
        t.dry_run = dry_run;
        cli::SendOptions s;
        s.account = account;
        s.smtp = smtp;
        if (tls != "required" && tls != "opportunistic" && tls != "none") {
          throw py::value_error("tls must be required, opportunistic or none, not '" + tls + "'");
        }
        s.tls = tls;
        s.from = from_address;
        s.from_name = from_name;
        s.helo = helo;
        s.timeout = timeout;
        s.allow_plaintext_auth = allow_plaintext_auth;
        s.ca_file = ca_file;
        s.connections = connections;
        s.rate = rate;
        s.domain_rate = domain_rate;
        s.retry_for = retry_for;
        s.quiet = true;
        cli::TickResult r;
        {
          py::gil_scoped_release release;
          std::lock_guard<std::recursive_mutex> serialised(LibraryLock());
          r = cli::Tick(g, t, s);
        }
        py::list events;
        for (const auto& e : r.events) {
          py::dict d;
          d["campaign"] = e.campaign;
          d["date"] = e.date;
          d["status"] = e.status;
          d["detail"] = e.detail;
          d["kept_queue"] = e.kept_queue;
          if (e.messages >= 0) d["messages"] = e.messages;
          if (e.tally) {
            d["messages"] = e.tally->made;
            d["sent"] = e.tally->sent;
            d["refused"] = e.tally->refused;
            d["failed"] = e.tally->failed;
            d["deferred"] = e.tally->deferred;
            d["in_doubt"] = e.tally->in_doubt;
            d["skipped"] = e.tally->disabled + e.tally->skipped;
            d["suppressed"] = e.tally->suppressed;
          }
          events.append(d);
        }
        py::dict out;
        out["events"] = events;
        out["runs"] = r.runs;
        out["not_delivered"] = r.not_delivered;
        out["problems"] = r.problems;
        return out;
      },
      py::arg("db"), py::kw_only(), py::arg("date") = "", py::arg("catch_up") = 7,
      py::arg("dry_run") = false, py::arg("account") = "", py::arg("smtp") = "",
      py::arg("tls") = "opportunistic", py::arg("from_address") = "", py::arg("from_name") = "",
      py::arg("helo") = "", py::arg("timeout") = 0, py::arg("allow_plaintext_auth") = false,
      py::arg("ca_file") = "", py::arg("connections") = 4, py::arg("rate") = "0",
      py::arg("domain_rate") = "0", py::arg("retry_for") = "4h",
      "Runs and sends every campaign due on `date` (default today), once per date, as `quillo "
      "tick` does; returns what happened as plain values.");
}

}  // namespace quillo::python
