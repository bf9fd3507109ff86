# cmake -DSCRIPT=EmbedPage.cmake -DFOLDER=... -P check_embed.cmake
# The hashes that the build notes for a page of many inline scripts and styles, which openssl dgst -sha256 -binary | base64
# gives for them, and that the same page gives the same source at any time.

cmake_minimum_required(VERSION 3.25)
file(MAKE_DIRECTORY ${FOLDER})
set(page ${FOLDER}/page.html)
file(WRITE ${page} [==[<!doctype html>
<style media="all">p { color: red; }</style>
<script type="module">const a = ["x;y", '<style>', "<script>", `\${1}`];
</script><p>ä</p><STYLE></STYLE>
<style></style><script>1</script>
]==])
foreach(run one two)
    execute_process(COMMAND ${CMAKE_COMMAND} -DPAGE=${page} -DSOURCE=${FOLDER}/${run}.cpp -P ${SCRIPT}
        COMMAND_ERROR_IS_FATAL ANY)
    file(READ ${FOLDER}/${run}.cpp ${run})
    execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 1.1) # the time of the compression is no part of it
endforeach()
if(NOT one STREQUAL two)
    message(SEND_ERROR "The same page gives two sources")
endif()
foreach(expected
    "\" 'sha256-1quWOZCaxtZ7I4P+1MfA/H1m3s8CjNp6zby6/Yldc/w=' 'sha256-a4ayc/80/OGda4BO/1o/V0etpOqiLx1JwB5S3beHW0s='\""
    "\" 'sha256-pckGv9YvNcB5xy+Y4fbqhyo+ib850wyiuWeNbZvLi00=' 'sha256-47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU='\"")
    string(FIND "${one}" "${expected}" at)
    if(at EQUAL -1)
        message(SEND_ERROR "Not in the source: ${expected}")
    endif()
endforeach()
