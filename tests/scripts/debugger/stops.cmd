debug
