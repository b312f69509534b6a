// The floor for a FastCGI program: workers that accept, answer a few bytes and do nothing else.
//
//     fcgi_echo SOCKET WORKERS
#include <fcgiapp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace
{

void Serve(int listener)
{
    FCGX_Request request;
    FCGX_InitRequest(&request, listener, 0);
    while (FCGX_Accept_r(&request) == 0) {
        FCGX_PutS("Content-Type: application/json\r\nContent-Length: 17\r\n\r\n{\"success\":true}\n",
                  request.out);
        FCGX_Finish_r(&request);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 || FCGX_Init() != 0) {
        return 2;
    }
    umask(0);
    const int listener = FCGX_OpenSocket(argv[1], 1024);
    for (int left = std::atoi(argv[2]); left > 0; --left) { // NOLINT(cert-err34-c)
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            Serve(listener);
            _exit(0);
        }
    }
    while (wait(nullptr) > 0) {
    }
    return 0;
}
