// Scripts and one-liners that fetch, hide or open a way in.

rule Shell_Downloads_And_Runs : script downloader
{
  meta:
    id = "ex-0201"
    action = "block"
    severity = "high"
    score = 75
    description = "Shell script that pipes a download straight into an interpreter or runs it from a temporary folder"

  strings:
    $pipe = /\b(curl|wget)\b[^\n|#]{1,200}https?:\/\/[^\n|#]{1,200}\|\s{0,8}(sudo\s{1,8})?(\/bin\/)?(ba|da|z)?sh\b/
    $fetch = /\b(curl|wget)\b[^\n#]{1,200}\s(-o|-O|--output|--output-document)[\s=]{1,4}\/(tmp|var\/tmp|dev\/shm)\//
    $mode = /\bchmod\s{1,8}(\+x|a\+x|u\+x|7[0-7]{2})\s{1,8}\/(tmp|var\/tmp|dev\/shm)\//

  condition:
    uint16be(0) == 0x2321 and filesize < 256KB and ($pipe or ($fetch and $mode))
}

rule Reverse_Shell_One_Liner : script backdoor
{
  meta:
    id = "ex-0202"
    action = "block"
    severity = "high"
    score = 85
    description = "Text that connects a shell's input and output to the network"

  strings:
    $bash_tcp = /\bbash\s{1,4}-i\s{0,4}[>0-9&]{1,6}\s{0,4}\/dev\/(tcp|udp)\//
    $netcat = /\bn(c|cat|etcat)\b[^\n]{0,80}\s-[a-z]{0,4}[ec]\s{1,4}\/bin\/(ba|da|z)?sh\b/
    $fifo = /mkfifo\s{1,4}\/tmp\/[^\n]{1,80}\|\s{0,4}\/bin\/sh\s{1,4}-i[^\n]{1,80}\|\s{0,4}n(c|cat)\b/
    $python = /socket\.socket\([^\n]{0,200}os\.dup2\([^\n]{0,200}(pty\.spawn|subprocess\.(call|Popen))/

  condition:
    filesize < 256KB and any of them
}

rule Php_Runs_Request_Input : script webshell
{
  meta:
    id = "ex-0203"
    action = "block"
    severity = "high"
    score = 90
    description = "PHP page that runs what the visitor sends"

  strings:
    $open = "<?php" nocase
    $open_short = "<?="
    $run = /\b(eval|assert|system|passthru|shell_exec|popen|proc_open)\s{0,4}\(\s{0,4}(@|base64_decode\s{0,4}\(|gzinflate\s{0,4}\(|str_rot13\s{0,4}\(|\s){0,4}\$_(GET|POST|REQUEST|COOKIE)\s{0,4}\[/ nocase

  condition:
    filesize < 1MB and any of ($open*) and $run
}

rule Shell_Script_Any : script noisy
{
  meta:
    id = "ex-0299"
    action = "disable"
    severity = "inform"
    score = 0
    description = "Any shell script. Matches far too often to be of use: shows a rule that is shipped switched off"

  strings:
    $bin_sh = /#!\s{0,4}\/(usr\/)?bin\/(env\s{1,4})?(ba|da|z|k)?sh\b/

  condition:
    $bin_sh at 0
}
