# Writes OUTPUT, a C++ source that holds each file of PROGRAMS as a character
# array named after the file (content-sender.pl gives velmo::remote::content_sender).
set(text "// Made from vantrel/remote/*.pl at build time by vantrel/remote/embed.cmake.\n")
string(APPEND text "namespace velmo {\nnamespace remote {\n")
foreach(program ${PROGRAMS})
  get_filename_component(name ${program} NAME_WE)
  string(REPLACE "-" "_" name ${name})
  file(READ ${program} hex HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," hex "${hex}")
  string(APPEND text "extern const char ${name}[];\nconst char ${name}[] = {${hex}0};\n")
endforeach()
string(APPEND text "}  // namespace remote\n}  // namespace velmo\n")
file(WRITE ${OUTPUT} "${text}")
