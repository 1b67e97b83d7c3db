/*
 * floor_cgi: the least a CGI program can do for the bench request, the
 * floor that request_cost.sh compares WebAPI programs with: a dynamic C
 * program that prints the same header and envelope as bench_api, byte for
 * byte, and nothing else. The scripts check that the answers are identical,
 * so a change to the envelope shows there and not as a speed-up.
 *
 * FLOOR_ANSWER, when set, replaces the whole answer (headers and body, less
 * its last line feed): the scripts pass the answer of another program (an
 * example with its own request and headers) that way.
 */
#include <stdio.h>
#include <stdlib.h>

int main(void)
{
    const char* answer = getenv("FLOOR_ANSWER");
    if (answer == NULL)
        answer = "Content-type: text/plain; charset=\"UTF-8\"\r\n\r\n"
                 "{\"data\":{\"items\":[0,1,2,3],\"user\":\"alice\"},\"success\":true}";
    return printf("%s\n", answer) < 0 || fflush(stdout) != 0;
}
