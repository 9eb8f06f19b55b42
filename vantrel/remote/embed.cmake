# Writes OUTPUT, a C++ source that holds each file of PROGRAMS, without its
# comment lines, as a character array named after the file (content-sender.pl
# gives velmo::remote::content_sender).
set(text "// Made from vantrel/remote/*.pl at build time by vantrel/remote/embed.cmake.\n")
string(APPEND text "namespace velmo {\nnamespace remote {\n")
foreach(program ${PROGRAMS})
  get_filename_component(name ${program} NAME_WE)
  string(REPLACE "-" "_" name ${name})
  # Comment lines stay in the file: the source host needs none of them.
  file(STRINGS ${program} lines)
  set(code "")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "^[ \t]*#")
      string(APPEND code "${line}\n")
    endif()
  endforeach()
  string(HEX "${code}" hex)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," hex "${hex}")
  string(APPEND text "extern const char ${name}[];\nconst char ${name}[] = {${hex}0};\n")
endforeach()
string(APPEND text "}  // namespace remote\n}  // namespace velmo\n")
file(WRITE ${OUTPUT} "${text}")
