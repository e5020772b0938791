include "..\a\"
rule a { condition: true }