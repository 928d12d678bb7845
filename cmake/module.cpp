// A module is made of its layers' objects; CMake wants a source of its own besides.
