/*
 * measure_run: one run of a program as the upload benchmark times it, from
 * fork() to the end of wait4(): wall time and the child's peak resident
 * memory (ru_maxrss, the kernel's VmHWM at exit).
 *
 * usage: measure_run [-p] IN OUT PROGRAM [ARG...]
 *   -p   standard input is a pipe that a feeder process fills from IN (with
 *        splice), as a web server gives a CGI program its body; without
 *        it, IN itself is standard input
 *   IN   file given to the program as standard input
 *   OUT  file receiving its standard output (created or truncated)
 * The program inherits our environment; the time runs until both it and
 * the feeder have ended. Prints one line:
 *   <seconds> <peak resident KiB> <exit status> <CPU seconds>
 * (CPU: the program's user and system time, the feeder's left out).
 * and exits 0 when the program exited with status 0, 1 otherwise.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
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

/* Copies `in` into the pipe's write end until the end of the file. */
static void Feed(int in, int pipeOut)
{
    for (;;) {
        const ssize_t moved = splice(in, NULL, pipeOut, NULL, 1 << 20, SPLICE_F_MOVE);
        if (moved <= 0)
            _exit(moved == 0 ? 0 : 1);
    }
}

int main(int argc, char** argv)
{
    const int piped = argc > 1 && strcmp(argv[1], "-p") == 0;
    argv += piped;
    argc -= piped;
    if (argc < 4) {
        fprintf(stderr, "usage: measure_run [-p] IN OUT PROGRAM [ARG...]\n");
        return 2;
    }
    int in = open(argv[1], O_RDONLY | O_CLOEXEC);
    const int out = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (in < 0 || out < 0) {
        perror("measure_run: open");
        return 2;
    }
    const double start = NowSeconds();
    pid_t feeder = -1;
    if (piped) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0 || (feeder = fork()) < 0) {
            perror("measure_run: pipe");
            return 2;
        }
        if (feeder == 0) {
            close(ends[0]);
            Feed(in, ends[1]);
        }
        close(ends[1]);
        close(in);
        in = ends[0];
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        execvp(argv[3], argv + 3);
        _exit(127);
    }
    close(in);
    int status = 0;
    struct rusage usage;
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
        perror("measure_run");
        return 2;
    }
    int feederStatus = 0;
    if (feeder > 0 && waitpid(feeder, &feederStatus, 0) != feeder) {
        perror("measure_run: feeder");
        return 2;
    }
    const double seconds = NowSeconds() - start;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    const double cpu = (double)usage.ru_utime.tv_sec + (double)usage.ru_utime.tv_usec / 1e6 +
                       (double)usage.ru_stime.tv_sec + (double)usage.ru_stime.tv_usec / 1e6;
    printf("%.6f %ld %d %.6f\n", seconds, usage.ru_maxrss, code, cpu);
    return code == 0 ? 0 : 1;
}
