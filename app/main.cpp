#include "app/command.h"

int main(int argc, char** argv) { return tonaMain(argc, argv); }
