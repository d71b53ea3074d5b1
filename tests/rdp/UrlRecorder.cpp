// Stands in for the URL opener in tests: appends one line per run to the file named by
// VELOMAR_RECORDER_FILE: the number of arguments, then each argument in hex, so that every byte
// it was given can be compared.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv)
{
    const char* path = std::getenv("VELOMAR_RECORDER_FILE");
    if (!path)
        return 2;
    std::string line = std::to_string(argc - 1);
    for (int i = 1; i < argc; ++i)
    {
        line += ' ';
        for (const char* p = argv[i]; *p; ++p)
        {
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(*p));
            line += hex;
        }
    }
    line += '\n';
    // One write of the whole line, so that runs at the same time never mix their lines.
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0)
        return 1;
    const bool whole = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    close(fd);
    return whole ? 0 : 1;
}
