rule a { strings: $a = "x
 condition: $a }
rule b { condition: true }