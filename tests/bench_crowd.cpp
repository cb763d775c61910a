// A crowd of sleeping processes for the benchmarks.
//   bench_crowd COUNT: makes the crowd, prints "ready", and ends with its input.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

int main(int, char **arguments)
{
    for (int left = atoi(arguments[1]); left > 0; left--) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            pause();
            _exit(0);
        }
        if (child < 0) {
            perror("bench_crowd: fork");
            return 1;
        }
    }
    puts("ready");
    fflush(stdout);
    while (getchar() != EOF) {
    }
    signal(SIGCHLD, SIG_IGN);
}
