# cmake -DIN=file -DOUT=file.cpp -DSYMBOL=name -P embed.cmake
# Writes the bytes of IN as a C++ array `SYMBOL` with its length in
# `SYMBOL`Size. A missing or empty IN gives a length of 0.
set(bytes "")
set(size 0)
if(EXISTS "${IN}")
  file(SIZE "${IN}" size)
  if(size GREATER 0)
    file(READ "${IN}" hex HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
  endif()
endif()
file(WRITE "${OUT}.tmp"
  "// Generated from ${IN}; do not edit.\n"
  "extern const unsigned char ${SYMBOL}[] = {\n${bytes}0};\n"
  "extern const unsigned int ${SYMBOL}Size = ${size};\n")
file(RENAME "${OUT}.tmp" "${OUT}")
