/* peak: runs a command and says what it took.
 *
 *   peak FILE COMMAND [ARGUMENT...]
 *
 * Writes to FILE the most memory that the command, or a process that it started, had resident, in KiB. Ends
 * with the command's status. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 3) {
        fputs("peak: give a file and a command\n", stderr);
        return EXIT_FAILURE;
    }
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        perror("peak");
        return EXIT_FAILURE;
    }
    struct rusage usage;
    FILE* file = getrusage(RUSAGE_CHILDREN, &usage) == 0 ? fopen(argv[1], "w") : NULL;
    if (file == NULL || fprintf(file, "%ld\n", usage.ru_maxrss) < 0 || fclose(file) != 0) {
        perror(argv[1]);
        return EXIT_FAILURE;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}
