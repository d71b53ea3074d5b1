#include "log/BuildInfo.h"

const char* BuildDateText()
{
    return __DATE__;
}
