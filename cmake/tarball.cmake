# Run by cpack: the installed bundle as a tarball that does not tell who made it. Its times are the
# files' own, since the CDS archive is for jars of their time, or SOURCE_DATE_EPOCH where later.
set(times "")
if(NOT "$ENV{SOURCE_DATE_EPOCH}" STREQUAL "")
    set(times "--mtime=@$ENV{SOURCE_DATE_EPOCH}" --clamp-mtime)
endif()
execute_process(COMMAND tar --create --file "${CPACK_PACKAGE_FILES}" "--use-compress-program=gzip -n"
        --format=gnu --sort=name --owner=root:0 --group=root:0 --mode=u=rwX,go=rX ${times}
        --directory "${CPACK_APPLICATIONS}" Orvane.app
    COMMAND_ERROR_IS_FATAL ANY)
