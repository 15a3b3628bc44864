// Placeholder until the client lands.
int main() { return 1; }
