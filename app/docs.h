// The manual page and the bash completion of the tona command.
#pragma once

#include <cstdio>

void writeManPage(FILE* out);
void writeBashCompletion(FILE* out);
