#pragma once
// The build date shown in the log banner and by the service host, e.g. "Jun  6 2025"
// (three-letter month, day padded with a blank, year), as the compiler saw it.

const char* BuildDateText();
