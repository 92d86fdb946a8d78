// A one-line progress bar for long work, drawn only on a terminal.
#ifndef QUILLO_CLI_PROGRESS_H_
#define QUILLO_CLI_PROGRESS_H_

#include <chrono>
#include <cstdio>
#include <string>

namespace quillo::cli {

class Progress {
 public:
  explicit Progress(bool enabled) : enabled_(enabled) {}
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { Finish(); }

  // Shows `done` of `total` with a short label; redraws at most every 50 ms.
  void Update(long done, long total, const std::string& label) {
    if (!enabled_) return;
    auto now = std::chrono::steady_clock::now();
    if (drawn_ && done != total && now - last_ < std::chrono::milliseconds(50)) return;
    last_ = now;
    drawn_ = true;
    constexpr int kWidth = 30;
    int filled = total > 0 ? static_cast<int>(kWidth * done / total) : 0;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(kWidth, ' ');
    std::string shown = label.size() > 32 ? label.substr(0, 29) + "..." : label;
    std::fprintf(stdout, "\r[%s] %ld/%ld %-32s", bar.c_str(), done, total, shown.c_str());
    std::fflush(stdout);
  }

  // Ends the bar's line.
  void Finish() {
    if (drawn_) std::fprintf(stdout, "\n");
    drawn_ = false;
  }

 private:
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_{};
};

}  // namespace quillo::cli

#endif  // QUILLO_CLI_PROGRESS_H_
