disasm
