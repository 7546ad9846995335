// A child for the process tests. The first argument picks what it does:
//   args   prints its working directory, then each further argument as
//          [argument], one a line
//   block  waits until standard input ends, then exits 0
//   fds    prints the numbers of its open descriptors, one a line
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "";
    if (!std::strcmp(mode, "args")) {
        char directory[4096];
        std::printf("%s\n", getcwd(directory, sizeof directory) ? directory : "?");
        for (int i = 2; i < argc; ++i)
            std::printf("[%s]\n", argv[i]);
        return 0;
    }
    if (!std::strcmp(mode, "block")) {
        char buffer[256];
        while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
        }
        return 0;
    }
    if (!std::strcmp(mode, "fds")) {
        DIR* directory = opendir("/proc/self/fd");
        if (!directory)
            return 1;
        while (const dirent* entry = readdir(directory)) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(directory))
                std::printf("%s\n", entry->d_name);
        }
        closedir(directory);
        return 0;
    }
    return 2;
}
