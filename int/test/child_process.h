// Runs code or a program in a child process and collects what it wrote and how it ended.
#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tqcore_test {

struct ChildResult {
  int status = 0;      // as waitpid gives it
  std::string output;  // standard output and standard error, interleaved
  bool exited(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killed_by(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

// Forks; the child runs `body` with its output going to the parent, and ends with `_exit` of
// what `body` returns unless `body` ends the process itself.
inline ChildResult run_in_child(std::function<int()> const& body) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return ChildResult{-1, "pipe failed"};
  pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    dup2(pipe_fds[1], STDOUT_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);
    rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);  // an expected trap leaves no core file behind
    int code = body();
    std::fflush(nullptr);  // _exit would drop what stdio still holds
    _exit(code);
  }
  close(pipe_fds[1]);
  ChildResult result;
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof(buffer))) > 0) result.output.append(buffer, n);
  close(pipe_fds[0]);
  waitpid(pid, &result.status, 0);
  return result;
}

// Runs `program` with `arguments`, with `environment` added to the inherited one.
inline ChildResult run_program(std::string const& program, std::vector<std::string> arguments,
                               std::vector<std::string> const& environment = {}) {
  return run_in_child([&] {
    for (std::string const& entry : environment) putenv(const_cast<char*>(entry.c_str()));
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    return 127;
  });
}

}  // namespace tqcore_test
