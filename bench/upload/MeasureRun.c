/*
 * measure_run: one run of a program as the upload benchmark times it, from
 * fork() to the end of wait4(): wall time and the child's peak resident
 * memory (ru_maxrss, the kernel's VmHWM at exit).
 *
 * usage: measure_run IN OUT PROGRAM [ARG...]
 *   IN   file given to the program as standard input
 *   OUT  file receiving its standard output (created or truncated)
 * The program inherits our environment. Prints one line:
 *   <seconds> <peak resident KiB> <exit status>
 * and exits 0 when the program exited with status 0, 1 otherwise.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double NowSeconds(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int main(int argc, char** argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: %s IN OUT PROGRAM [ARG...]\n", argv[0]);
        return 2;
    }
    const int in = open(argv[1], O_RDONLY | O_CLOEXEC);
    const int out = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (in < 0 || out < 0) {
        perror("measure_run: open");
        return 2;
    }
    const double start = NowSeconds();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        execvp(argv[3], argv + 3);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
        perror("measure_run");
        return 2;
    }
    const double seconds = NowSeconds() - start;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    printf("%.6f %ld %d\n", seconds, usage.ru_maxrss, code);
    return code == 0 ? 0 : 1;
}
