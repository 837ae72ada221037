#include "unfinished.hpp"

#include <fcntl.h>   // O_CLOEXEC
#include <unistd.h>  // pipe2, read, write, usleep, _exit

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "run_error.hpp"

namespace talvik::tool {
namespace {

struct Registry {
  std::mutex mutex;
  std::set<std::string> paths;
};

// Never destroyed: a signal may come while the process ends.
Registry& registry() {
  static auto* const only = new Registry;
  return *only;
}

void remove_path(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

// Whoever still writes into the directory finds it no longer; what was begun before is waited for.
void remove_while_written(const std::string& path) {
  const std::string aside = path + ".removed";
  const bool moved = std::rename(path.c_str(), aside.c_str()) == 0;
  constexpr int most_attempts = 100;
  std::error_code error;
  for (int attempt = 0; moved && attempt < most_attempts; ++attempt) {
    std::filesystem::remove_all(aside, error);
    if (!error) break;
    usleep(1000);
  }
  remove_path(path);
}

// A handler may do next to nothing, so it only wakes a thread, which may do everything.
int signal_pipe = -1;

void on_signal(int signal) {
  const int error = errno;
  const auto number = static_cast<unsigned char>(signal);
  [[maybe_unused]] const auto written = write(signal_pipe, &number, 1);
  errno = error;
}

void wait_for_signal(int pipe) {
  unsigned char number = 0;
  while (read(pipe, &number, 1) != 1) {
  }
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);  // held to the end: nothing new begins
  for (const std::string& path : all.paths) remove_while_written(path);
  constexpr int by_signal = 128;
  _exit(by_signal + number);
}

}  // namespace

std::mutex& unfinished_mutex() { return registry().mutex; }

Unfinished::Unfinished(std::string path) : path_(std::move(path)) {
  const std::lock_guard lock(registry().mutex);
  registry().paths.insert(path_);
}

void Unfinished::forget() {
  registry().paths.erase(path_);
  path_.clear();
}

void Unfinished::remove() {
  const std::lock_guard lock(registry().mutex);
  if (path_.empty()) return;
  remove_path(path_);
  forget();
}

bool Unfinished::rename_to(const std::string& name) {
  const std::lock_guard lock(registry().mutex);
  if (std::rename(path_.c_str(), name.c_str()) != 0) return false;
  forget();
  return true;
}

void remove_all_unfinished() {
  Registry& all = registry();
  if (!all.mutex.try_lock()) return;  // the signal's thread is at it
  for (const std::string& path : all.paths) remove_path(path);
  all.paths.clear();
  all.mutex.unlock();
}

void remove_unfinished_at_the_end() {
  std::atexit(remove_all_unfinished);
  std::signal(SIGPIPE, SIG_IGN);  // a reader that has gone shows where its file is written
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return;  // signals end the process as ever
  signal_pipe = ends[1];
  try {
    std::thread(wait_for_signal, ends[0]).detach();
  } catch (const std::system_error& error) {
    throw RunError(std::string("a thread cannot be started: ") + error.what());
  }
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = on_signal;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
  }
}

}  // namespace talvik::tool
