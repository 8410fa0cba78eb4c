// Entry point of ostrel. Until the driver lands, the tool copies standard
// input to standard output unchanged, so a pipeline through it is harmless.
#include <cstdio>

int main()
{
    char buffer[1 << 16];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, stdin)) > 0)
        std::fwrite(buffer, 1, got, stdout);
    return 0;
}
