// Every bridge library defines this function; its address tells the core which file it is part of.
void emptyFunctionInNativeLib() {}
