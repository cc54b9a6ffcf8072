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

int main(int argc, char **argv) {
    /* The program is packaged under two names (see package.sh). */
    const char *self = argc > 0 && strrchr(argv[0], '/') != NULL ? strrchr(argv[0], '/') + 1 : "sampleplugin";
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);

    printf("%s: running as pid %ld, uid %ld\n", self, (long)getpid(), (long)getuid());
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
    printf("%s: stopped\n", self);
    fflush(stdout);
    return 0;
}
