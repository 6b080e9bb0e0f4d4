// qmtrm_supervise.cpp - `run` and `script` do their work in a child process, so that the process
// the operator (or the cluster) started can always leave.
//
// A thread asleep in the kernel on a device that no longer answers cannot be killed, and a process
// does not finish exiting while one of its threads is in that state: its parent would wait for it
// as long as the device stays stuck. So the process that was started only waits: the child tells
// it its exit status through a pipe just before it exits, and the parent returns that status at
// once, even when the child itself cannot finish exiting yet. The child is left behind until the
// kernel lets its last thread go.
//
// Signals: the child has a process group of its own, so that a signal meant for the group the
// host was started in (Ctrl-C at a terminal, `timeout`, a cluster killing an action's group)
// reaches the parent alone, which passes each on exactly once. The child stops as a stopped host
// does when the parent dies without passing anything on.
#include "qmtrm.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qmtrm {

namespace {

int status_fd = -1;              // the child's end of the pipe, -1 in an unsupervised process
pid_t waiting = 0;               // in the child: the process that waits for it
volatile sig_atomic_t child = 0; // the parent's child, for the signal handler

void pass_on(int signal_number)
{
    int saved = errno;
    if (child > 0)
        kill(static_cast<pid_t>(child), signal_number);
    errno = saved;
}

// The child's exit status as the parent reports it: what the child announced, else how it ended.
int wait_for_child(int read_fd)
{
    for (;;) {
        pollfd p{read_fd, POLLIN, 0};
        int n = poll(&p, 1, 200);
        if (n > 0) {
            unsigned char code = 0;
            ssize_t got = read(read_fd, &code, 1);
            if (got == 1) {
                // The child may still be finishing its exit (or unable to): reap it if it is done.
                waitpid(static_cast<pid_t>(child), nullptr, WNOHANG);
                return code;
            }
            if (got < 0 && errno == EINTR)
                continue;
            // The pipe closed without a status: the child ended otherwise; say how.
        } else if (n < 0 && errno == EINTR) {
            continue;
        }
        // A probe process of the child's may hold the pipe open after the child ended, so the
        // child itself is also looked at.
        int status = 0;
        pid_t done = waitpid(static_cast<pid_t>(child), &status, n == 0 ? WNOHANG : 0);
        if (done == 0 || (done < 0 && errno == EINTR))
            continue;
        if (done < 0)
            return kExitStuck;
        if (WIFEXITED(status))
            return WEXITSTATUS(status);
        int sig = WTERMSIG(status);
        std::fprintf(stderr, "qmtrm: the monitor process ended on signal %d (%s)\n", sig, strsignal(sig));
        return 128 + sig;
    }
}

} // namespace

int supervise()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "qmtrm: cannot create a pipe: %s\n", std::strerror(errno));
        return kExitInit;
    }
    std::fflush(nullptr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        std::fprintf(stderr, "qmtrm: cannot start the monitor process: %s\n", std::strerror(errno));
        close(fds[0]);
        close(fds[1]);
        return kExitInit;
    }
    if (pid == 0) {
        close(fds[0]);
        status_fd = fds[1];
        waiting = parent;
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)  // the parent died before the line above took effect
            raise(SIGTERM);
        return kSupervisedChild;
    }
    close(fds[1]);
    child = pid;
    struct sigaction action {};
    action.sa_handler = pass_on;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &action, nullptr);
    int code = wait_for_child(fds[0]);
    close(fds[0]);
    return code;
}

void announce_exit(int code)
{
    if (status_fd < 0)
        return;
    unsigned char byte = static_cast<unsigned char>(code);
    while (write(status_fd, &byte, 1) < 0 && errno == EINTR) {
    }
    close(status_fd);
    status_fd = -1;
}

int started_pid()
{
    return static_cast<int>(waiting > 0 ? waiting : getpid());
}

void leave_now(int code)
{
    std::fflush(nullptr);
    announce_exit(code);
    _exit(code);
}

} // namespace qmtrm
