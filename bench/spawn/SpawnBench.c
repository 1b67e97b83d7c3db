/*
 * spawn_bench: what one fresh process costs, program by program, from fork()
 * to the end of waitpid(): the whole life of a CGI process as the web server
 * sees it.
 *
 * The programs run in rounds (A B C A B C ...) so that a slow phase of a
 * shared machine hits all of them alike, and each program's run is paired
 * with the first program's run of the same round: the median of those
 * differences ("d-median") cancels slow phases that span a round. The first
 * program is the floor the ratios refer to.
 *
 * usage: spawn_bench [-n rounds] [-w warmup] [-o raw.tsv] [-v] PROGRAM...
 *   PROGRAM    one argument holding a command line split on spaces,
 *              e.g. "./bench_api --flag"; a word without '/' is looked up
 *              in PATH
 *   -n rounds  measured rounds (default 1000)
 *   -w warmup  rounds run first and not measured (default 20)
 *   -o FILE    also write every measured run: "program<TAB>round<TAB>us"
 *   -v         let the programs write to our stdout (default: /dev/null)
 *
 * The children inherit our environment (the CGI variables) and get
 * /dev/null as stdin. A run fails when its program does not exit with
 * status 0; the bench then exits with status 1, so that a program that
 * stopped doing its work is never reported as fast.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kMaxWords = 64 };

struct Program {
    const char* label;
    char* words[kMaxWords]; /* NULL-terminated argv */
    double* runMicros;      /* one per measured round, in round order */
    long failures;
};

static double NowMicros(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec * 1e6 + (double)ts.tv_nsec / 1e3;
}

static int SplitCommandLine(const char* commandLine, struct Program* program)
{
    char* copy = strdup(commandLine);
    char* save = NULL;
    int count = 0;
    if (copy == NULL)
        return -1;
    for (char* word = strtok_r(copy, " ", &save); word != NULL; word = strtok_r(NULL, " ", &save)) {
        if (count == kMaxWords - 1) {
            free(copy);
            return -1;
        }
        program->words[count++] = word;
    }
    program->words[count] = NULL;
    program->label = commandLine;
    if (count == 0) {
        free(copy);
        return -1;
    }
    return 0;
}

/* One run of `program`; sets *failed unless it exited with status 0. */
static double RunOnce(const struct Program* program, int nullFd, int outputFd, int* failed)
{
    int status = 0;
    const double start = NowMicros();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(nullFd, STDIN_FILENO);
        if (outputFd >= 0)
            dup2(outputFd, STDOUT_FILENO);
        execvp(program->words[0], program->words);
        _exit(127);
    }
    if (pid < 0) {
        perror("fork");
        exit(2);
    }
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            perror("waitpid");
            exit(2);
        }
    }
    const double elapsed = NowMicros() - start;
    *failed = !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return elapsed;
}

static int CompareDoubles(const void* a, const void* b)
{
    const double x = *(const double*)a, y = *(const double*)b;
    return (x > y) - (x < y);
}

/* Nearest-rank percentile of an ascending array, 0 < p <= 100. */
static double Percentile(const double* sorted, long count, double p)
{
    long rank = (long)(p / 100.0 * (double)count + 0.999999);
    if (rank < 1)
        rank = 1;
    if (rank > count)
        rank = count;
    return sorted[rank - 1];
}

static int ParseCount(const char* text, long* out)
{
    char* end = NULL;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < 0)
        return -1;
    *out = value;
    return 0;
}

static void Usage(const char* self)
{
    fprintf(stderr, "usage: %s [-n rounds] [-w warmup] [-o raw.tsv] [-v] PROGRAM...\n", self);
    exit(2);
}

static int WriteRaw(const char* path, const struct Program* programs, int programCount, long rounds)
{
    FILE* raw = fopen(path, "w");
    if (raw == NULL) {
        perror(path);
        return -1;
    }
    for (int i = 0; i < programCount; i++)
        for (long round = 0; round < rounds; round++)
            fprintf(raw, "%s\t%ld\t%.1f\n", programs[i].label, round, programs[i].runMicros[round]);
    return fclose(raw) == 0 ? 0 : -1;
}

int main(int argc, char** argv)
{
    long rounds = 1000, warmupRounds = 20;
    const char* rawPath = NULL;
    int verbose = 0;
    int option;
    while ((option = getopt(argc, argv, "+n:w:o:v")) != -1) {
        switch (option) {
        case 'n':
            if (ParseCount(optarg, &rounds) != 0 || rounds < 1)
                Usage(argv[0]);
            break;
        case 'w':
            if (ParseCount(optarg, &warmupRounds) != 0)
                Usage(argv[0]);
            break;
        case 'o': rawPath = optarg; break;
        case 'v': verbose = 1; break;
        default: Usage(argv[0]);
        }
    }
    const int programCount = argc - optind;
    if (programCount < 1)
        Usage(argv[0]);

    struct Program* programs = calloc((size_t)programCount, sizeof *programs);
    double* scratch = malloc((size_t)rounds * sizeof(double));
    double* pairedMedians = calloc((size_t)programCount, sizeof(double));
    if (programs == NULL || scratch == NULL || pairedMedians == NULL)
        return 2;
    for (int i = 0; i < programCount; i++) {
        if (SplitCommandLine(argv[optind + i], &programs[i]) != 0) {
            fprintf(stderr, "bad program: '%s'\n", argv[optind + i]);
            return 2;
        }
        programs[i].runMicros = malloc((size_t)rounds * sizeof(double));
        if (programs[i].runMicros == NULL)
            return 2;
    }

    const int nullFd = open("/dev/null", O_RDWR);
    if (nullFd < 0) {
        perror("/dev/null");
        return 2;
    }
    /* Our own buffered output must not be copied into the children. */
    fflush(NULL);
    const int outputFd = verbose ? -1 : nullFd;

    for (long round = -warmupRounds; round < rounds; round++) {
        for (int i = 0; i < programCount; i++) {
            int failed = 0;
            const double micros = RunOnce(&programs[i], nullFd, outputFd, &failed);
            if (round < 0) {
                if (failed) {
                    fprintf(stderr, "warm-up run of '%s' failed; stopping\n", programs[i].label);
                    return 1;
                }
                continue;
            }
            programs[i].runMicros[round] = micros;
            programs[i].failures += failed;
        }
    }

    if (rawPath != NULL && WriteRaw(rawPath, programs, programCount, rounds) != 0)
        return 2;

    /* Paired differences before sorting, which breaks the pairing. */
    for (int i = 1; i < programCount; i++) {
        for (long r = 0; r < rounds; r++)
            scratch[r] = programs[i].runMicros[r] - programs[0].runMicros[r];
        qsort(scratch, (size_t)rounds, sizeof *scratch, CompareDoubles);
        pairedMedians[i] = Percentile(scratch, rounds, 50);
    }

    printf("%ld rounds (+%ld warm-up), %d programs interleaved\n", rounds, warmupRounds, programCount);
    printf("%9s %9s %9s %9s %7s %9s %7s %6s  %s\n", "median", "p90", "min", "mean", "ratio", "d-median",
           "d-ratio", "fails", "program");
    double floorMedian = 0;
    int anyFailed = 0;
    for (int i = 0; i < programCount; i++) {
        double* times = programs[i].runMicros;
        double sum = 0;
        for (long r = 0; r < rounds; r++)
            sum += times[r];
        qsort(times, (size_t)rounds, sizeof *times, CompareDoubles);
        const double median = Percentile(times, rounds, 50);
        if (i == 0)
            floorMedian = median;
        /* d-ratio: the floor's median plus the paired difference, over the
         * floor's median; steadier than the ratio of two medians. */
        printf("%9.1f %9.1f %9.1f %9.1f %7.3f %9.1f %7.3f %6ld  %s\n", median, Percentile(times, rounds, 90),
               times[0], sum / (double)rounds, median / floorMedian, pairedMedians[i],
               (floorMedian + pairedMedians[i]) / floorMedian, programs[i].failures, programs[i].label);
        anyFailed |= programs[i].failures != 0;
    }
    if (anyFailed)
        fprintf(stderr, "some runs failed (non-zero exit): their times are not to be trusted\n");
    return anyFailed ? 1 : 0;
}
