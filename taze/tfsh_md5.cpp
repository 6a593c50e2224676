// tfsh_md5
