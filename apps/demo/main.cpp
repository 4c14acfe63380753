// Placeholder demo; replaced by the middleware demo once the object layer exists.
int main() { return 0; }
