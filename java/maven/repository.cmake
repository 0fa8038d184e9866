# Lays out a local Maven repository:
#   cmake -DREPOSITORY=folder -DVERSION=version -DMETADATA=file -DFILES=pom;jar;... -P repository.cmake
# Each file is named with its suffix after a colon: "-sources.jar:/build/java/sources.jar".
set(artifact ${REPOSITORY}/velmar/qen/tkv)
file(REMOVE_RECURSE ${artifact})
file(MAKE_DIRECTORY ${artifact}/${VERSION})

# Copies a file, and writes the checksums that Maven looks for beside it.
function(place source target)
  file(COPY_FILE ${source} ${target})
  foreach(algorithm MD5 SHA1)
    file(${algorithm} ${target} sum)
    string(TOLOWER ${algorithm} suffix)
    file(WRITE ${target}.${suffix} ${sum})
  endforeach()
endfunction()

place(${METADATA} ${artifact}/maven-metadata.xml)
foreach(entry ${FILES})
  string(REGEX MATCH "^([^:]*):(.*)$" matched ${entry})
  place(${CMAKE_MATCH_2} ${artifact}/${VERSION}/tkv-${VERSION}${CMAKE_MATCH_1})
endforeach()
