// Stands in for the URL opener in tests: appends one line per run to the file named by
// VELOMAR_RECORDER_FILE, each argument ended by a NUL, so that every byte it was given can be
// compared.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    const char* path = std::getenv("VELOMAR_RECORDER_FILE");
    std::string line;
    for (int i = 1; i < argc; ++i)
        line.append(argv[i]).push_back('\0');
    line.push_back('\n');
    // One write of the whole line, so that runs at the same time never mix their lines.
    const int fd = path ? open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    const bool whole = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (fd >= 0)
        close(fd);
    return whole ? 0 : 1;
}
