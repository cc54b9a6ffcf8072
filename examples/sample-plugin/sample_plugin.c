/* sampleplugin: the smallest C plugin. The gateway starts it in its
 * MyPlugin directory; it announces itself, counts in its data directory
 * every few seconds and ends cleanly on SIGTERM. */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static volatile sig_atomic_t stop_requested;

static void on_stop(int signo) {
    (void)signo;
    stop_requested = 1;
}

int main(void) {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);

    printf("sampleplugin: running as pid %ld\n", (long)getpid());
    fflush(stdout);
    for (unsigned long ticks = 1; !stop_requested; ++ticks) {
        /* ../Data is the plugin's persistent data directory. */
        FILE *f = fopen("../Data/ticks", "w");
        if (f != NULL) {
            fprintf(f, "%lu\n", ticks);
            fclose(f);
        }
        sleep(2);
    }
    printf("sampleplugin: stopped\n");
    fflush(stdout);
    return 0;
}
