# What is installed has its modes whatever the umask of whoever installs.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# kest_install_link(target path): installs the symbolic link `path` (below the prefix, or absolute), which the manifest lists too.
function(kest_install_link target path)
  install(CODE "
    set(path \"${path}\")
    cmake_path(ABSOLUTE_PATH path BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\" NORMALIZE)
    message(STATUS \"Installing: \$ENV{DESTDIR}\${path}\")
    cmake_path(GET path PARENT_PATH folder)
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${folder}\")
    file(CREATE_LINK ${target} \"\$ENV{DESTDIR}\${path}\" SYMBOLIC)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${path}\")")
endfunction()
