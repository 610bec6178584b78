# Fails unless the README holds the example, line for line.
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(FIND "${readme}" "```c\n${example}```" at)
if(at EQUAL -1)
    message(FATAL_ERROR "README.md does not show ${EXAMPLE} as it is: copy it there")
endif()
