/*
 * fcgi_ceiling: the ceiling fcgi_cost.sh measures the FastCGI endpoints
 * against: one process that stays up and answers every request with
 * floor_cgi's bytes. What a request costs it is the web server, the socket
 * and the FastCGI records, and no process; a design that forks for each
 * request cannot do better.
 *
 * It serves the listening socket on descriptor 0, where a web server that
 * spawns FastCGI programs puts it, one connection at a time. The records
 * are read and written here rather than through a FastCGI library, so the
 * benchmark needs no extra package and the ceiling does no work of its own
 * beyond reading the request and writing the answer in one write.
 */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum {
    HEADER_LEN = 8,
    BEGIN_REQUEST = 1,
    ABORT_REQUEST = 2,
    END_REQUEST = 3,
    PARAMS = 4,
    STDIN = 5,
    STDOUT = 6,
    GET_VALUES = 9,
    GET_VALUES_RESULT = 10,
    UNKNOWN_TYPE = 11,
    RESPONDER = 1,
    KEEP_CONN = 1,
    UNKNOWN_ROLE = 3,
};

/* floor_cgi's answer; fcgi_cost.sh compares the bodies byte for byte, so a
 * change to one of the two shows there. */
static const char answer[] = "Content-type: text/plain; charset=\"UTF-8\"\r\n\r\n"
                             "{\"data\":{\"items\":[0,1,2,3],\"user\":\"alice\"},\"success\":true}\n";

/* Room for two whole records (8 + 65535 + 255 bytes each), so one read
 * usually brings a request's records at once. */
static unsigned char in[2 * 65800];
static size_t in_start, in_end;

static void header(unsigned char* out, int type, unsigned id, size_t length)
{
    out[0] = 1;
    out[1] = (unsigned char)type;
    out[2] = (unsigned char)(id >> 8);
    out[3] = (unsigned char)id;
    out[4] = (unsigned char)(length >> 8);
    out[5] = (unsigned char)length;
    out[6] = 0;
    out[7] = 0;
}

static int write_all(int fd, const unsigned char* data, size_t length)
{
    while (length > 0) {
        ssize_t n = write(fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        data += n;
        length -= (size_t)n;
    }
    return 0;
}

/* Makes `need` bytes available at in + in_start; 0 at the end of the
 * connection or on an error. */
static int fill(int fd, size_t need)
{
    if (in_end - in_start >= need)
        return 1;
    if (sizeof in - in_start < need) {
        memmove(in, in + in_start, in_end - in_start);
        in_end -= in_start;
        in_start = 0;
    }
    while (in_end - in_start < need) {
        ssize_t n = read(fd, in + in_end, sizeof in - in_end);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        in_end += (size_t)n;
    }
    return 1;
}

static int end_request(int fd, unsigned id, int status)
{
    unsigned char out[HEADER_LEN + 8] = {0};
    header(out, END_REQUEST, id, 8);
    out[HEADER_LEN + 4] = (unsigned char)status;
    return write_all(fd, out, sizeof out);
}

/* The answer as one STDOUT record, the end of STDOUT and the end of the
 * request, built once. */
static unsigned char reply[3 * HEADER_LEN + sizeof answer - 1 + 8];

static void build_reply(void)
{
    size_t body = sizeof answer - 1;
    header(reply, STDOUT, 0, body);
    memcpy(reply + HEADER_LEN, answer, body);
    header(reply + HEADER_LEN + body, STDOUT, 0, 0);
    header(reply + 2 * HEADER_LEN + body, END_REQUEST, 0, 8);
    memset(reply + 3 * HEADER_LEN + body, 0, 8);
}

static int send_reply(int fd, unsigned id)
{
    size_t body = sizeof answer - 1;
    size_t at[] = {0, HEADER_LEN + body, 2 * HEADER_LEN + body};
    for (size_t i = 0; i < 3; ++i) {
        reply[at[i] + 2] = (unsigned char)(id >> 8);
        reply[at[i] + 3] = (unsigned char)id;
    }
    return write_all(fd, reply, sizeof reply);
}

/* Requests on one connection, one after the other, until the web server
 * no longer keeps it. */
static void serve(int fd)
{
    in_start = in_end = 0;
    unsigned id = 0;
    int keep = 0, begun = 0;
    for (;;) {
        if (!fill(fd, HEADER_LEN))
            return;
        const unsigned char* h = in + in_start;
        int type = h[1];
        unsigned record_id = (unsigned)h[2] << 8 | h[3];
        size_t length = (size_t)h[4] << 8 | h[5];
        size_t total = HEADER_LEN + length + h[6];
        if (!fill(fd, total))
            return;
        const unsigned char* content = in + in_start + HEADER_LEN;
        in_start += total;

        if (record_id == 0) {
            /* Management records: no limits to announce, nothing else known. */
            unsigned char out[HEADER_LEN + 8] = {0};
            if (type == GET_VALUES) {
                header(out, GET_VALUES_RESULT, 0, 0);
                if (write_all(fd, out, HEADER_LEN) != 0)
                    return;
            } else {
                header(out, UNKNOWN_TYPE, 0, 8);
                out[HEADER_LEN] = (unsigned char)type;
                if (write_all(fd, out, sizeof out) != 0)
                    return;
            }
            continue;
        }
        if (type == BEGIN_REQUEST && length >= 8) {
            int role = content[0] << 8 | content[1];
            keep = content[2] & KEEP_CONN;
            if (role != RESPONDER) {
                if (end_request(fd, record_id, UNKNOWN_ROLE) != 0 || !keep)
                    return;
                continue;
            }
            id = record_id;
            begun = 1;
        } else if (type == STDIN && length == 0 && begun && record_id == id) {
            /* The whole request is in: the answer never depends on it. */
            if (send_reply(fd, id) != 0 || !keep)
                return;
            begun = 0;
        } else if (type == ABORT_REQUEST && begun && record_id == id) {
            if (end_request(fd, id, 0) != 0 || !keep)
                return;
            begun = 0;
        }
        /* Parameters and the body change nothing in the answer. */
    }
}

int main(void)
{
    /* A web server that drops a connection must not end the ceiling. */
    signal(SIGPIPE, SIG_IGN);
    build_reply();
    for (;;) {
        int fd = accept(0, NULL, NULL);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            perror("fcgi_ceiling: accept on descriptor 0");
            return 1;
        }
        serve(fd);
        close(fd);
    }
}
