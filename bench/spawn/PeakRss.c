/*
 * peak_rss: the peak resident memory of one CGI process per request body,
 * as the kernel counts it (ru_maxrss of wait4), the first body being the
 * baseline the others are compared with.
 *
 * usage: peak_rss PROGRAM BODY_FILE...
 *
 * PROGRAM runs once per BODY_FILE as a POST whose body is that file
 * (CONTENT_LENGTH its size), with our environment (the CGI variables) and
 * its output thrown away. Its exit status does not matter: what is measured
 * is the cost of reading the request, which comes before any answer. One
 * line per body: its size, the peak, and the peak above the baseline as a
 * multiple of the body's size.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/* Peak resident kilobytes of PROGRAM with `body` as its standard input, or
 * -1 when it could not be run. */
static long PeakKib(const char* program, const char* body, long long size)
{
    char length[32];
    snprintf(length, sizeof length, "%lld", size);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        const int in = open(body, O_RDONLY);
        const int out = open("/dev/null", O_WRONLY);
        if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0) _exit(127);
        setenv("REQUEST_METHOD", "POST", 1);
        setenv("CONTENT_LENGTH", length, 1);
        setenv("CONTENT_TYPE", "application/json", 1);
        execl(program, program, (char*)NULL);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    if (wait4(pid, &status, 0, &usage) != pid) return -1;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) return -1;
    return usage.ru_maxrss;
}

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s PROGRAM BODY_FILE...\n", argv[0]);
        return 2;
    }
    long baseline = 0;
    printf("%-40s %10s %12s %14s\n", "body", "bytes", "peak KiB", "x body size");
    for (int i = 2; i < argc; ++i) {
        struct stat info;
        if (stat(argv[i], &info) != 0) {
            perror(argv[i]);
            return 1;
        }
        const long peak = PeakKib(argv[1], argv[i], (long long)info.st_size);
        if (peak < 0) {
            fprintf(stderr, "%s could not be run\n", argv[1]);
            return 1;
        }
        if (i == 2) baseline = peak;
        const char* name = strrchr(argv[i], '/') ? strrchr(argv[i], '/') + 1 : argv[i];
        if (i == 2 || info.st_size == 0)
            printf("%-40s %10lld %12ld %14s\n", name, (long long)info.st_size, peak, "baseline");
        else
            printf("%-40s %10lld %12ld %14.1f\n", name, (long long)info.st_size, peak,
                   (double)(peak - baseline) * 1024.0 / (double)info.st_size);
    }
    return 0;
}
