// Next to nothing. Some targets are made of objects or headers alone, and need one source all the same.
int main() { }
