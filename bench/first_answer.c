/* first_answer PORT PATH STATUS [-- [fd=N] [ids=UID:GID] COMMAND [ARG]...]...
 *
 * Starts the commands at once, each with the listening socket N handed over as systemd does it and with other
 * ids where they are named, and asks 127.0.0.1:PORT for PATH until STATUS is answered. Prints the
 * microseconds from before the first start until then (-1: not within 20 seconds) and the process numbers,
 * and ends the processes when its standard input ends. In C and linked statically, so that next to nothing is
 * added to what is measured. */
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { MOST = 8, LONGEST_SECONDS = 20, PAUSE_NANOSECONDS = 50000 };

static double seconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static int hand_over(int fd)
{
    char self[16];
    snprintf(self, sizeof self, "%d", (int)getpid());
    return dup2(fd, 3) == 3 && setenv("LISTEN_FDS", "1", 1) == 0 && setenv("LISTEN_PID", self, 1) == 0;
}

static void become(char** word)
{
    unsigned uid;
    unsigned gid;
    int fd;
    int done = 1;
    for (; done && *word != NULL; ++word) {
        if (sscanf(*word, "fd=%d", &fd) == 1) {
            done = hand_over(fd);
        } else if (sscanf(*word, "ids=%u:%u", &uid, &gid) == 2) {
            done = setgroups(0, NULL) == 0 && setgid(gid) == 0 && setuid(uid) == 0;
        } else {
            execvp(*word, word);
            done = 0;
        }
    }
    _exit(1);
}

static int answers(int port, const char* path, const char* status)
{
    const struct sockaddr_in address = {.sin_family = AF_INET,
                                        .sin_port = htons((unsigned short)port),
                                        .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    char text[512];
    const int size =
        snprintf(text, sizeof text, "GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", path);
    const int asked = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int found = 0;
    if (connect(asked, (const struct sockaddr*)&address, sizeof address) == 0 &&
        send(asked, text, (size_t)size, MSG_NOSIGNAL) == size) {
        const ssize_t got = recv(asked, text, sizeof text - 1, 0);
        text[got < 0 ? 0 : got] = '\0';
        found = strncmp(text, "HTTP/1.1 ", 9) == 0 && strncmp(text + 9, status, strlen(status)) == 0;
    }
    close(asked);
    return found;
}

int main(int argc, char** argv)
{
    if (argc < 6) {
        return 2;
    }
    int first[MOST];
    int count = 0;
    for (int i = 4; i < argc && count < MOST; ++i) {
        if (strcmp(argv[i], "--") == 0) {
            argv[i] = NULL; /* ends the command before */
            first[count++] = i + 1;
        }
    }

    const double begun = seconds();
    pid_t started[MOST];
    for (int i = 0; i < count; ++i) {
        started[i] = fork();
        if (started[i] == 0) {
            become(argv + first[i]);
        }
    }
    int answered = 0;
    while (!(answered = answers(atoi(argv[1]), argv[2], argv[3])) && seconds() - begun < LONGEST_SECONDS) {
        const struct timespec pause = {0, PAUSE_NANOSECONDS};
        nanosleep(&pause, NULL);
    }
    printf("%.0f", answered ? (seconds() - begun) * 1e6 : -1.0);
    for (int i = 0; i < count; ++i) {
        printf(" %d", (int)started[i]);
    }
    puts("");
    fflush(stdout);

    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    for (int i = count; i-- > 0;) {
        kill(started[i], SIGTERM);
        waitpid(started[i], NULL, 0);
    }
    return 0;
}
