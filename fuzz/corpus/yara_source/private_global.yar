import "pe"
private global rule a { condition: pe.is_pe }
global private rule b { condition: a }
