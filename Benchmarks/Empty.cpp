// Does nothing: what it takes to come and go is the system's.
int main() {}
