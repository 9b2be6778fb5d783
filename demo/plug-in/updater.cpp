// Stands for the maker's updater, the second file of the shared package. It changes with every revision.

#include <cstdio>

int main() { return std::puts("Tamarind Pelican Updater, revision " REVISION) < 0; }
