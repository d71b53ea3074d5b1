// Holds the private Wine prefix's desktop for the whole test run. Wine ends its desktop process
// when nobody uses it and starts it again for the next program that does; that program's output
// pipe is then inherited by the desktop process and CTest waits on it until the test times out.
// Started by the prefix fixture with its output on /dev/null, ended when the fixture stops the
// prefix's server.
#include <windows.h>

int main()
{
    ::GetDesktopWindow();
    ::Sleep(INFINITE);
    return 0;
}
