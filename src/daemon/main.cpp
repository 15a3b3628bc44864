// Placeholder until the daemon lands.
int main() { return 1; }
