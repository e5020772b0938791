

include "/etc/passwd"