# Makes the page a C++ raw string literal: cmake -DIN=page.html -DOUT=serve_page.h -P embed.cmake
file(READ ${IN} page)
file(WRITE ${OUT} "// Generated from tools/serve/page.html at build time.\nstatic const char kPage[] = R\"PAGE(${page})PAGE\";\n")
