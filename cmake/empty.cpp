// A folder that has no source yet still makes a library.
